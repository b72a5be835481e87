// Numbers seen in socket calls turned into the names and texts the log and the recorder show.
#pragma once

const char* familyToString(unsigned short family);
const char* familyToCommentString(unsigned short family);
const char* afToString(unsigned family);
const char* protocolToString(int protocol);
char* typeToString(int type);
const char* getIoctlCmdKind(int command);
const char* getIoctlOptKind();
const char* getSocketErrorKind(int error);
const char* getSocketErrorMsg(int error);
void getFlagImage(int flags, char* buffer);
