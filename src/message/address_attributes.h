// Socket addresses as recorder attributes: family, address text, port.
#pragma once

#include <sys/socket.h>
#include <wchar.h>

class RecorderMessage;

void fillMsgWithName(RecorderMessage* message, const sockaddr* address);

// The eight groups of an IPv6 address, each "%x", joined by ':' with no shortening of zero runs:
// the recorder matches addresses as text, in this one form.
void formatIpv6Groups(const unsigned char bytes[16], char* out, unsigned size);

unsigned wtoc(char* destination, const wchar_t* wide);
