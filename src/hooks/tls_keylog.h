// The key-log extension's work (see config/tls_keylog_file.h). The agent's callback is put on
// every OpenSSL context a session is made from and on every GnuTLS session; a callback the program
// set, or sets later, is remembered and called after the agent's, and is what the program reads
// back: the agent chains to it, never replaces it.
#pragma once

#include "real/tls_functions.h"

bool tlsKeylogWanted();

// `library`: the library's function the stand-in called, beside which its others are looked up.

// OpenSSL: a session was made from `context`.
void watchOpenSslContext(void* context, const void* library);
// The program sets its own callback on `context`.
void chainOpenSslCallback(void* context, void* callback, const void* library);
// What the program reads back as its context's callback, given what the library holds.
void* programOpenSslCallback(const void* context, void* held);

// GnuTLS: a session was made.
void watchGnuTlsSession(void* session, const void* library);
void chainGnuTlsFunction(void* session, void* function, const void* library);
void* programGnuTlsFunction(const void* session, void* held);
