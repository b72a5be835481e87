// Turns every entry of a HAR file into a shell command that makes its request, with httpsnippet
// (the converter behind many API tools), each command ended by a zero byte (a body may hold line
// ends). Usage: node har-to-curl.js FILE
'use strict';
const fs = require('fs');
const { HTTPSnippet } = require('httpsnippet');

const har = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
for (const entry of har.log.entries) {
  const snippet = new HTTPSnippet(entry.request);
  // One line: the converter's own line continuations joined.
  process.stdout.write(snippet.convert('shell', 'curl', { indent: false }).replace(/ \\\n\s*/g, ' ') + '\0');
}
