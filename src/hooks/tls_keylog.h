// The key-log extension's work (see config/tls_keylog_file.h). The agent's callback is put on
// every OpenSSL context a session is made from and on every GnuTLS session; a callback the program
// set, or sets later, is remembered and called after the agent's, and is what the program reads
// back: the agent chains to it, never replaces it.
#pragma once

#include "real/tls_functions.h"

bool tlsKeylogWanted();

// OpenSSL: a session was made from `context`.
void watchOpenSslContext(void* context, const void* caller);
// The program sets its own callback on `context`.
void chainOpenSslCallback(void* context, void* callback, const void* caller);
// What the program reads back as its context's callback, given what the library holds.
void* programOpenSslCallback(const void* context, void* held);

// GnuTLS: a session was made.
void watchGnuTlsSession(void* session, const void* caller);
void chainGnuTlsFunction(void* session, void* function, const void* caller);
void* programGnuTlsFunction(const void* session, void* held);
