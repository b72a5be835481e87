// Process-wide numbering: every intercepted call gets a call number, every recorded event a ticket.
#pragma once

void initializeCounter();
void cleanCounter();
unsigned getGlobalCpt();
unsigned getTicket();
unsigned getInternalCpt();
