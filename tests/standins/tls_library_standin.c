/* Stands in for a TLS library in a scope of its own: two builds of it (TALVEX_MARK 1001 and 2002)
 * play two copies of OpenSSL in one process, as a module that brings its own does beside the
 * system's. SSL_write answers with the build's mark. */
int SSL_write(void* ssl, const void* buffer, int count) {
  (void)ssl;
  (void)buffer;
  (void)count;
  return TALVEX_MARK;
}
