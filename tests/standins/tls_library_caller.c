/* An object that needs one build of tls_library_standin and calls its SSL_write, as a module
 * calls the OpenSSL it was linked with. */
int SSL_write(void* ssl, const void* buffer, int count);

/* Not a tail call: the call returns here, so that its caller can be told. */
int callTlsLibrary(void) {
  volatile int written = SSL_write(0, "x", 1);
  return written;
}
