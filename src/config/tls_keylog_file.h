// The key-log extension (TALVEX_SOCKET_AGENT_TLS_KEYLOG=FILE): the session secrets of every TLS
// connection the program makes through OpenSSL or GnuTLS are appended to FILE in the key log
// format Wireshark and tshark read (as SSLKEYLOGFILE), so that a capture of the wire taken
// elsewhere can be decrypted.
#pragma once

// Read at start-up, with the other switches.
void readTlsKeylogFile();
// The file, or null when the extension is off (unset, empty, or a path too long to open).
const char* tlsKeylogFile();
