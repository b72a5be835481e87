// Socket addresses as recorder attributes: family, address text, port.
#pragma once

#include <sys/socket.h>
#include <wchar.h>

class RecorderMessage;

void fillMsgWithName(RecorderMessage* message, const sockaddr* address);

// The eight groups of an IPv6 address, each "%x", joined by ':' with no shortening of zero runs:
// the recorder matches addresses as text, in this one form.
void formatIpv6Groups(const unsigned char bytes[16], char* out, unsigned size);

// The address of an IPv4 or IPv6 socket address in the text the "ip" attribute uses, for the
// attributes that name other addresses the same way. False (and `out` empty) for other families.
bool formatAddressText(const sockaddr* address, char* out, unsigned size);

unsigned wtoc(char* destination, const wchar_t* wide);
