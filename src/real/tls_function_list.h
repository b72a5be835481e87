// The TLS libraries' functions the agent stands in for, and those it only asks: X(result, name,
// parameters, arguments). The library's own types are opaque pointers here: the agent includes
// no header of the libraries it hooks and links none of them.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// OpenSSL 1.1 and 3: the calls that move plaintext, and those that move only records (the
// handshake, a peek, the closing alert).
#define TALVEX_OPENSSL_EXPORTS(X)                                                                        \
  X(int, SSL_write, (void* ssl, const void* buffer, int count), (ssl, buffer, count))                  \
  X(int, SSL_read, (void* ssl, void* buffer, int count), (ssl, buffer, count))                         \
  X(int, SSL_peek, (void* ssl, void* buffer, int count), (ssl, buffer, count))                         \
  X(int, SSL_write_ex, (void* ssl, const void* buffer, size_t count, size_t* written),                  \
    (ssl, buffer, count, written))                                                                      \
  X(int, SSL_read_ex, (void* ssl, void* buffer, size_t count, size_t* got), (ssl, buffer, count, got))  \
  X(int, SSL_peek_ex, (void* ssl, void* buffer, size_t count, size_t* got), (ssl, buffer, count, got))  \
  X(int, SSL_write_early_data, (void* ssl, const void* buffer, size_t count, size_t* written),          \
    (ssl, buffer, count, written))                                                                      \
  X(int, SSL_read_early_data, (void* ssl, void* buffer, size_t count, size_t* got),                     \
    (ssl, buffer, count, got))                                                                          \
  X(int, SSL_do_handshake, (void* ssl), (ssl))                                                          \
  X(int, SSL_connect, (void* ssl), (ssl))                                                               \
  X(int, SSL_accept, (void* ssl), (ssl))                                                                \
  X(int, SSL_shutdown, (void* ssl), (ssl))

// GnuTLS 3, likewise.
#define TALVEX_GNUTLS_EXPORTS(X)                                                                         \
  X(ssize_t, gnutls_record_send, (void* session, const void* data, size_t size), (session, data, size)) \
  X(ssize_t, gnutls_record_send2, (void* session, const void* data, size_t size, size_t pad, unsigned flags), \
    (session, data, size, pad, flags))                                                                  \
  X(ssize_t, gnutls_record_send_range, (void* session, const void* data, size_t size, const void* range), \
    (session, data, size, range))                                                                       \
  X(ssize_t, gnutls_record_recv, (void* session, void* data, size_t size), (session, data, size))       \
  X(ssize_t, gnutls_record_recv_seq, (void* session, void* data, size_t size, unsigned char* sequence), \
    (session, data, size, sequence))                                                                    \
  X(int, gnutls_handshake, (void* session), (session))                                                  \
  X(int, gnutls_bye, (void* session, int how), (session, how))                                          \
  X(int, gnutls_record_uncork, (void* session, unsigned flags), (session, flags))                       \
  X(int, gnutls_rehandshake, (void* session), (session))                                                \
  X(int, gnutls_reauth, (void* session, unsigned flags), (session, flags))                              \
  X(int, gnutls_session_key_update, (void* session, unsigned flags), (session, flags))                  \
  X(int, gnutls_alert_send, (void* session, int level, int description), (session, level, description))

// Where the libraries take a program's key-log callback: stood in for only while the agent writes
// a key log, so that its callback is chained to the program's, never put in its place.
#define TALVEX_OPENSSL_KEYLOG_EXPORTS(X)                                                                 \
  X(void*, SSL_new, (void* context), (context))                                                         \
  X(void, SSL_CTX_set_keylog_callback, (void* context, void* callback), (context, callback))            \
  X(void*, SSL_CTX_get_keylog_callback, (const void* context), (context))

#define TALVEX_GNUTLS_KEYLOG_EXPORTS(X)                                                                  \
  X(int, gnutls_init, (void** session, unsigned flags), (session, flags))                               \
  X(void, gnutls_session_set_keylog_function, (void* session, void* function), (session, function))     \
  X(void*, gnutls_session_get_keylog_function, (const void* session), (session))

// Asked, never stood in for: the library's own idea of a session's descriptor and of how a call
// ended.
#define TALVEX_TLS_QUERIES(X)                                                                            \
  X(int, SSL_get_fd, (const void* ssl), (ssl))                                                          \
  X(int, SSL_get_error, (const void* ssl, int result), (ssl, result))                                   \
  X(unsigned long, ERR_peek_error, (void), ())                                                          \
  X(int, gnutls_transport_get_int, (void* session), (session))                                         \
  X(void*, SSL_get_SSL_CTX, (const void* ssl), (ssl))                                                   \
  X(void, gnutls_session_get_random, (void* session, void* client, void* server), (session, client, server))

#define TALVEX_TLS_STAND_INS(X) \
  TALVEX_OPENSSL_EXPORTS(X) TALVEX_GNUTLS_EXPORTS(X) TALVEX_OPENSSL_KEYLOG_EXPORTS(X) TALVEX_GNUTLS_KEYLOG_EXPORTS(X)
#define TALVEX_TLS_FUNCTIONS(X) TALVEX_TLS_STAND_INS(X) TALVEX_TLS_QUERIES(X)
