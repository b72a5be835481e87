// A Go client and server for the tracer's tests, from the standard library alone: Go makes its
// system calls itself, so no preloaded library sees them.
//
//	go_client get URL...          GETs each URL over one kept-alive connection, prints each body's length
//	go_client post URL BYTES      POSTs BYTES bytes (a repeating pattern), prints the answer
//	go_client serve PORTFILE      serves one connection on a loopback port it writes to PORTFILE
//	                              (whole, by a rename), answering each request with its body's length
package main

import (
	"bytes"
	"fmt"
	"io"
	"net"
	"net/http"
	"os"
	"strconv"
)

func main() {
	switch os.Args[1] {
	case "get":
		client := &http.Client{}
		for _, url := range os.Args[2:] {
			response, err := client.Get(url)
			if err != nil {
				fmt.Fprintln(os.Stderr, err)
				os.Exit(1)
			}
			body, _ := io.ReadAll(response.Body)
			response.Body.Close()
			fmt.Println(len(body))
		}
	case "post":
		size, _ := strconv.Atoi(os.Args[3])
		payload := make([]byte, size)
		for i := range payload {
			payload[i] = byte('a' + i%26)
		}
		response, err := http.Post(os.Args[2], "application/octet-stream", bytes.NewReader(payload))
		if err != nil {
			fmt.Fprintln(os.Stderr, err)
			os.Exit(1)
		}
		body, _ := io.ReadAll(response.Body)
		response.Body.Close()
		fmt.Println(string(body))
	case "serve":
		listener, err := net.Listen("tcp", "127.0.0.1:0")
		if err != nil {
			fmt.Fprintln(os.Stderr, err)
			os.Exit(1)
		}
		port := strconv.Itoa(listener.Addr().(*net.TCPAddr).Port)
		os.WriteFile(os.Args[2]+".part", []byte(port+"\n"), 0o644)
		os.Rename(os.Args[2]+".part", os.Args[2])
		connection, err := listener.Accept()
		if err != nil {
			os.Exit(1)
		}
		listener.Close()
		one := &oneConnection{connection: connection, done: make(chan struct{})}
		server := &http.Server{Handler: http.HandlerFunc(func(w http.ResponseWriter, r *http.Request) {
			body, _ := io.ReadAll(r.Body)
			fmt.Fprintf(w, "read %d bytes\n", len(body))
		}), ConnState: func(c net.Conn, state http.ConnState) {
			if state == http.StateClosed {
				close(one.done)
			}
		}}
		go server.Serve(one)
		<-one.done
	}
}

// A listener that hands out one connection, then waits until it has been served.
type oneConnection struct {
	connection net.Conn
	done       chan struct{}
	given      bool
}

func (l *oneConnection) Accept() (net.Conn, error) {
	if !l.given {
		l.given = true
		return l.connection, nil
	}
	<-l.done
	return nil, net.ErrClosed
}
func (l *oneConnection) Close() error   { return nil }
func (l *oneConnection) Addr() net.Addr { return l.connection.LocalAddr() }
