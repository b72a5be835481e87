#include "real/real_functions.h"

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>

#include "real/dlsym_bootstrap.h"
#include "startup/agent_startup.h"

TEST(RealFunctions, MissingFunctionGivesZeroAndLeavesErrno) {
  decltype(&::recv) pointer = nullptr;
  char buffer[4];
  errno = 42;
  EXPECT_EQ(callReal(pointer, "talvex_no_such_function", 0, buffer, sizeof buffer, 0), 0);
  EXPECT_EQ(errno, 42);
  EXPECT_EQ(pointer, nullptr);
}

TEST(RealFunctions, ErrorAccessorIsUnknownUntilPointersAreInitialised) {
  // The accessor is not exported under its plain name, so a lookup before start-up finds nothing.
  if (WSAGetLastError_ptr == nullptr) {
    errno = 5;
    EXPECT_EQ(True_WSAGetLastError(), 0);
  }
  initializeRealFunctionPointers();
  EXPECT_EQ(socketInitialized, 1);
  errno = 5;
  EXPECT_EQ(True_WSAGetLastError(), 5);
  True_WSASetLastError(77);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(socket_ptr, reinterpret_cast<decltype(socket_ptr)>(dlsym(RTLD_NEXT, "socket")));
}

TEST(RealFunctions, WrappersReachTheCLibrary) {
  const int s = True_socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  EXPECT_EQ(True_close(s), 0);
  errno = 0;
  EXPECT_EQ(True_close(s), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(True_htons(0x1234), htons(0x1234));
  EXPECT_EQ(True_ntohs(0x3412), ntohs(0x3412));
  EXPECT_EQ(True_htonl(1), htonl(1));
  EXPECT_EQ(True_inet_addr("127.0.0.1"), htonl(INADDR_LOOPBACK));
  in_addr a;
  a.s_addr = htonl(0x0a000001);
  EXPECT_STREQ(True_inet_ntoa(a), "10.0.0.1");
}

TEST(RealFunctions, GetProcAddressFallsBackToDefaultScope) {
  EXPECT_NE(GetProcAddress(RTLD_NEXT, "strlen"), nullptr);
  EXPECT_EQ(GetProcAddress(RTLD_NEXT, "talvex_no_such_function"), nullptr);
  EXPECT_EQ(getfGetProcAddress(), &GetProcAddress);
}

TEST(RealFunctions, MissingLibraryPathLooksInTheGlobalScope) {
  // A path that does not exist opens the main program, so a C library name is still found there.
  EXPECT_NE(LoadSymbolFromLibrary("/nonexistent/libRecorderCore.so", "strlen"), nullptr);
  EXPECT_EQ(LoadSymbolFromLibrary("/nonexistent/libRecorderCore.so", "currentTime"), nullptr);
}

TEST(DlsymBootstrap, FindsTheRealDlsym) {
  EXPECT_NE(Truedlsym(RTLD_NEXT, "connect"), nullptr);
  ASSERT_NE(dlsymptr, nullptr);
  EXPECT_STREQ(libdl, "libdl.so");
  EXPECT_STREQ(symb, "dlsym");
  EXPECT_EQ(lookupNextDefinition("talvex_no_such_function"), nullptr);
}
