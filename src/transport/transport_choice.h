// Which transport carries the process's messages: chosen once by start-up, after the switches are
// read (and again by a test that changes them).
#pragma once

#include "transport/transport.h"

void chooseTransport();
// The connection per message until a choice is made.
const Transport& chosenTransport();
