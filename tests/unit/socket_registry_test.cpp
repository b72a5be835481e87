#include "registry/socket_registry.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "config/socks_config.h"
#include "log_capture.h"
#include "real/real_functions.h"

namespace {

// Descriptor numbers no real socket of the test process will have.
unsigned descriptor(unsigned n) { return 100000 + n; }

class Registry : public ::testing::Test {
 protected:
  void TearDown() override {
    socksModeActive = 0;
    for (unsigned n = 0; n < 64; ++n) freeSocketInfo(descriptor(n));
  }
};

}  // namespace

TEST_F(Registry, DescriptorZeroIsNeverRegistered) {
  EXPECT_EQ(createSocketInfo(0, 2, 1, 0, 6), nullptr);
  EXPECT_EQ(getSocketInfo(0), nullptr);
  EXPECT_EQ(freeSocketInfo(0), 0);
}

TEST_F(Registry, CreateFindAndRelease) {
  SOCKETINFO* r = createSocketInfo(descriptor(1), 2, 1, 1, 6);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(getSocketInfo(descriptor(1)), r);
  EXPECT_EQ(getSocket(r), static_cast<int>(descriptor(1)));
  EXPECT_EQ(getFamily(r), 2u);
  EXPECT_EQ(getProtocol(r), 6u);
  EXPECT_EQ(r->type, 1u);
  EXPECT_EQ(isNonBlockingSocket(r), 1);
  EXPECT_EQ(freeSocketInfo(descriptor(1)), 1);
  EXPECT_EQ(getSocketInfo(descriptor(1)), nullptr);
  EXPECT_EQ(freeSocketInfo(descriptor(1)), 0);
  // The next socket takes the released record back.
  SOCKETINFO* again = createSocketInfo(descriptor(2), 10, 2, 0, 17);
  EXPECT_EQ(again, r);
  EXPECT_EQ(isNonBlockingSocket(again), 0);
  EXPECT_EQ(getFamily(again), 10u);
}

TEST_F(Registry, RecreatingALiveDescriptorKeepsItsBitsAndResetsTheAddressLength) {
  SOCKETINFO* r = createSocketInfo(descriptor(3), 2, 1, 0, 6);
  createMemoOpenedSocket(r);
  createMemoAcceptedSocket(r);
  sockaddr_in destination;
  memset(&destination, 0, sizeof destination);
  destination.sin_family = AF_INET;
  EXPECT_EQ(createSockaddrElem(r, reinterpret_cast<sockaddr*>(&destination), sizeof destination), 1);
  EXPECT_EQ(r->addrLen, 16);
  SOCKETINFO* same = createSocketInfo(descriptor(3), 10, 1, 0, 6);
  EXPECT_EQ(same, r);
  EXPECT_EQ(r->addrLen, 0);
  EXPECT_EQ(isOpenedSocket(r), 1);
  EXPECT_EQ(isAcceptedSocket(r), 1);
  EXPECT_EQ(isSocketRerouted(r), 1);
  EXPECT_EQ(getFamily(r), 10u);
}

TEST_F(Registry, RecreatingALiveDescriptorKeepsItsLockedBit) {
  socksModeActive = 1;
  SOCKETINFO* r = createSocketInfo(descriptor(4), 2, 1, 0, 6);
  pthread_mutex_t* lock = createMemoLockedSocket(r);
  ASSERT_NE(lock, nullptr);
  SOCKETINFO* same = createSocketInfo(descriptor(4), 2, 1, 0, 6);
  EXPECT_EQ(same, r);
  // A SOCKS exchange is still under way on it: senders must go on waiting for it.
  EXPECT_EQ(isLockedSocket(same), lock);
  freeMemoLockedSocket(r);
  EXPECT_EQ(isLockedSocket(same), nullptr);
}

TEST_F(Registry, ARecycledRecordKeepsItsBits) {
  SOCKETINFO* r = createSocketInfo(descriptor(12), 2, 1, 0, 6);
  createMemoOpenedSocket(r);
  freeSocketInfo(descriptor(12));
  SOCKETINFO* again = createSocketInfo(descriptor(13), 2, 1, 0, 6);
  ASSERT_EQ(again, r);
  EXPECT_EQ(isOpenedSocket(again), 1);
  freeMemoOpenedSocket(again);
}

TEST_F(Registry, FlagOperationsReturnPreviousValues) {
  SOCKETINFO* r = createSocketInfo(descriptor(4), 2, 1, 0, 6);
  freeMemoOpenedSocket(r);
  freeMemoAcceptedSocket(r);
  removeSockaddrElem(r);
  EXPECT_EQ(freeMemoOpenedSocket(r), 0);
  createMemoOpenedSocket(r);
  EXPECT_EQ(freeMemoOpenedSocket(r), 1);
  EXPECT_EQ(isOpenedSocket(r), 0);
  createMemoAcceptedSocket(r);
  EXPECT_EQ(freeMemoAcceptedSocket(r), 1);
  EXPECT_EQ(freeAcceptedSocket(r), r);
  EXPECT_EQ(freeOpenedSocket(r), r);
  EXPECT_EQ(removeSockaddrElem(r), 0);
}

TEST_F(Registry, NullRecordIsANeutralNoOp) {
  EXPECT_EQ(getSocket(nullptr), -1);
  EXPECT_EQ(getProtocol(nullptr), 0u);
  EXPECT_EQ(getFamily(nullptr), 0u);
  setFamily(nullptr, 2);
  EXPECT_EQ(createMemoOpenedSocket(nullptr), 0);
  EXPECT_EQ(isOpenedSocket(nullptr), 0);
  EXPECT_EQ(isAcceptedSocket(nullptr), 0);
  EXPECT_EQ(isSocketRerouted(nullptr), 0);
  EXPECT_EQ(freeOpenedSocket(nullptr), nullptr);
  EXPECT_EQ(createMemoLockedSocket(nullptr), nullptr);
  EXPECT_EQ(isLockedSocket(nullptr), nullptr);
  EXPECT_EQ(createSockaddrElem(nullptr, nullptr, 0), -1);
  int error = 7;
  socklen_t length = 16;
  EXPECT_EQ(getSockaddrValues(nullptr, nullptr, &length, &error), 0);
  EXPECT_EQ(error, 7);
}

TEST_F(Registry, LocksOnlyInSocksMode) {
  SOCKETINFO* r = createSocketInfo(descriptor(5), 2, 1, 0, 6);
  EXPECT_EQ(createMemoLockedSocket(r), nullptr);
  socksModeActive = 1;
  EXPECT_EQ(isLockedSocket(r), nullptr);
  EXPECT_EQ(createMemoLockedSocket(r), &r->connectionLock);
  EXPECT_EQ(isLockedSocket(r), &r->connectionLock);
  EXPECT_EQ(freeMemoLockedSocket(r), &r->connectionLock);
  EXPECT_EQ(isLockedSocket(r), nullptr);
}

TEST_F(Registry, StoredDestinationForGetpeername) {
  SOCKETINFO* r = createSocketInfo(descriptor(6), 2, 1, 0, 6);
  sockaddr_in destination;
  memset(&destination, 0, sizeof destination);
  destination.sin_family = AF_INET;
  destination.sin_port = htons(8080);
  destination.sin_addr.s_addr = htonl(0x0a000001);
  createSockaddrElem(r, reinterpret_cast<sockaddr*>(&destination), sizeof destination);

  sockaddr_in out;
  memset(&out, 0xee, sizeof out);
  socklen_t length = 4;
  int error = -5;
  EXPECT_EQ(getSockaddrValues(r, reinterpret_cast<sockaddr*>(&out), &length, &error), 1);
  EXPECT_EQ(error, 14);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(out.sin_family, 0xeeee);  // nothing copied

  length = sizeof out;
  EXPECT_EQ(getSockaddrValues(r, reinterpret_cast<sockaddr*>(&out), &length, &error), 1);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(length, sizeof destination);
  EXPECT_EQ(memcmp(&out, &destination, sizeof out), 0);

  removeSockaddrElem(r);
  error = 3;
  EXPECT_EQ(getSockaddrValues(r, reinterpret_cast<sockaddr*>(&out), &length, &error), 0);
  EXPECT_EQ(error, 3);
}

TEST_F(Registry, OverLongDestinationIsCutAtTheStore) {
  SOCKETINFO* r = createSocketInfo(descriptor(7), 2, 1, 0, 6);
  std::vector<unsigned char> big(4096, 0xab);
  EXPECT_EQ(createSockaddrElem(r, reinterpret_cast<sockaddr*>(big.data()), 4096), 1);
  EXPECT_EQ(r->addrLen, 128);
  for (unsigned char b : r->addr) EXPECT_EQ(b, 0xab);
  EXPECT_EQ(createSockaddrElem(r, reinterpret_cast<sockaddr*>(big.data()), -3), 1);
  EXPECT_EQ(r->addrLen, 0);
}

TEST_F(Registry, LocalSocketsNeverLog) {
  // Registering asks the kernel for the socket's identity; start-up has always resolved that
  // function before, so its lookup line does not come between here either.
  int type = 0;
  socklen_t length = sizeof type;
  True_getsockopt(-1, SOL_SOCKET, SO_TYPE, &type, &length);
  talvex_test::LogCapture log("127");
  SOCKETINFO* local = createSocketInfo(descriptor(8), 1, 1, 0, 0);
  SOCKETINFO* inet = createSocketInfo(descriptor(9), 2, 1, 0, 6);
  s_disp(descriptor(8), DMK_INFO, "local s_disp");
  si_disp(local, DMK_INFO, "local si_disp");
  s_disp(descriptor(9), DMK_INFO, "inet s_disp");
  si_disp(inet, DMK_INFO, "inet si_disp");
  si_disp(nullptr, DMK_INFO, "null si_disp");
  s_disp(descriptor(10), DMK_INFO, "unknown s_disp");
  s_disp(0, DMK_INFO, "zero s_disp");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u) << log.content();
  EXPECT_EQ(lines[1], "[INFO ]inet s_disp");
  EXPECT_EQ(lines[2], "[INFO ]inet si_disp");
}

TEST_F(Registry, DisplayLines) {
  initializeRealFunctionPointers();  // so that no lookup line comes between
  talvex_test::LogCapture log("2");
  SOCKETINFO* r = createSocketInfo(descriptor(11), 2, 1, 0, 6);
  createMemoOpenedSocket(r);
  sockaddr_in destination;
  memset(&destination, 0, sizeof destination);
  destination.sin_family = AF_INET;
  destination.sin_port = htons(80);
  destination.sin_addr.s_addr = htonl(0x7f000001);
  createSockaddrElem(r, reinterpret_cast<sockaddr*>(&destination), sizeof destination);
  displayOpenedSocket(nullptr);
  displayOpenedSocket(r);
  displaySockaddrElem(r);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u) << log.content();
  EXPECT_EQ(lines[1], "[INFO ](null)");
  EXPECT_EQ(lines[2], "[INFO ]186ab");
  EXPECT_EQ(lines[3].substr(0, 7), "[INFO ]");
  EXPECT_EQ(lines[3].substr(7), "=> socket : 186ab \tip : 127.0.0.1(80)");
}

TEST_F(Registry, ThreadsCreatingAndReleasingConcurrently) {
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int round = 0; round < 2000; ++round) {
        const unsigned fd = descriptor(20 + t);
        SOCKETINFO* r = createSocketInfo(fd, 2, 1, 0, 6);
        ASSERT_NE(r, nullptr);
        ASSERT_EQ(getSocketInfo(fd), r);
        ASSERT_EQ(r->socket, fd);
        ASSERT_EQ(freeSocketInfo(fd), 1);
      }
    });
  }
  for (auto& t : threads) t.join();
  for (unsigned t = 0; t < 4; ++t) EXPECT_EQ(getSocketInfo(descriptor(20 + t)), nullptr);
}
