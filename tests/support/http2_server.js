// An HTTP/2 server for the HAR tests, run without the agent, with node's own http2 module: over
// TLS (ALPN "h2", and HTTP/1.1 for clients that do not offer h2, as a HAR importer's replay) with
// the certificate the test made, or in clear text for clients with prior knowledge. What it
// received on each request is the reference a HAR entry must match.
//
// usage: node http2_server.js DIRECTORY tls|clear
// It writes its port to DIRECTORY/port (whole, by a rename) and, for each request, once it has
// read the whole body, appends a JSON line to DIRECTORY/requests:
// {"method":...,"path":...,"authority":...,"version":...,"body_b64":...}. It answers
//   /one  a text of 11 bytes
//   /two  a text of 3000 bytes, with a header of its own
//   /echo (POST) the body it was sent
//   /br   a text compressed with Brotli (Content-Encoding: br)
// and ends itself after 300 seconds at most.
'use strict';
const fs = require('fs');
const http2 = require('http2');
const path = require('path');
const zlib = require('zlib');

const [directory, mode] = process.argv.slice(2);
const server = mode === 'tls'
  ? http2.createSecureServer({
      key: fs.readFileSync(path.join(directory, 'key.pem')),
      cert: fs.readFileSync(path.join(directory, 'cert.pem')),
      allowHTTP1: true,
    })
  : http2.createServer();

server.on('request', (request, response) => {
  const pieces = [];
  request.on('data', (piece) => pieces.push(piece));
  request.on('end', () => {
    const body = Buffer.concat(pieces);
    fs.appendFileSync(path.join(directory, 'requests'), JSON.stringify({
      method: request.method, path: request.url, authority: request.headers[':authority'] || request.headers.host,
      version: request.httpVersion, body_b64: body.toString('base64'),
    }) + '\n');
    if (request.url === '/one') {
      response.writeHead(200, { 'content-type': 'text/plain' });
      response.end('first body\n');
    } else if (request.url === '/two') {
      response.writeHead(200, { 'content-type': 'text/plain', 'x-stream': 'second' });
      response.end('2'.repeat(3000));
    } else if (request.url === '/br') {
      response.writeHead(200, { 'content-type': 'text/plain', 'content-encoding': 'br' });
      response.end(zlib.brotliCompressSync('brotli, '.repeat(1000)));
    } else if (request.url === '/echo') {
      response.writeHead(200, { 'content-type': 'application/octet-stream' });
      response.end(body);
    } else {
      response.writeHead(404);
      response.end();
    }
  });
});

server.listen(0, '127.0.0.1', () => {
  fs.writeFileSync(path.join(directory, 'port.part'), server.address().port + '\n');
  fs.renameSync(path.join(directory, 'port.part'), path.join(directory, 'port'));
});
setTimeout(() => process.exit(0), 300 * 1000).unref();
