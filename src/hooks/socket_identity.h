// An extension, on with TALVEX_SOCKET_AGENT_SOCKET_IDENTITY: a connect or an accept names the
// socket itself and its local end. The socket's cookie is the same through every descriptor that
// holds it (dup, a child that inherited it, one received over a UNIX socket), so a reader can join
// what each copy carried into the one conversation it is; the local address lets it draw both
// ends as they were rather than guess the local one.
#pragma once

class RecorderMessage;

// Adds "cookie" and "localip" (and "localport" when `withLocalPort`: an accept has none of its own)
// to the message of `socket`, when the extension is on and the system answers.
void addSocketIdentity(RecorderMessage& message, int socket, bool withLocalPort);
