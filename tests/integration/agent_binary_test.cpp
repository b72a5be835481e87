// What the built agent shows the loader: exactly its exports, nothing but the C library.
#include <gtest/gtest.h>

#include <ctype.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>

#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

std::string tool(const std::vector<std::string>& argv) {
  const ProcessResult r = runProcess(argv, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0) << argv[0] << ": " << r.err;
  return r.out;
}

// Mangled names cut before their parameter types (the part after the name's own length prefix).
std::set<std::string> withoutParameterTypes(const std::set<std::string>& names) {
  std::set<std::string> out;
  for (const auto& name : names) {
    if (name.rfind("_Z", 0) != 0) {
      out.insert(name);
      continue;
    }
    // _Z<len><name> or _ZN<len><name><len><name>E: keep through the last name.
    size_t at = name[2] == 'N' ? 3 : 2;
    while (at < name.size() && isdigit(static_cast<unsigned char>(name[at]))) {
      size_t digits = at;
      while (digits < name.size() && isdigit(static_cast<unsigned char>(name[digits]))) ++digits;
      at = digits + static_cast<size_t>(std::stoul(name.substr(at, digits - at)));
    }
    out.insert(name.substr(0, at));
  }
  return out;
}

const char* const kSocketExports[] = {"socket", "bind", "listen", "accept", "connect", "close", "send",
                                      "sendto", "sendmsg", "write", "recv", "recvfrom", "recvmsg", "read",
                                      "getaddrinfo", "getsockname", "getpeername", "getsockopt", "setsockopt",
                                      "select", "pselect"};

// The C++ names of the Init/Direct companions, as the C library's signatures mangle.
const char* const kCompanionSignatures[] = {
    "_Z12Directsocketiii", "_Z10DirectbindiPK8sockaddrj", "_Z12Directlistenii", "_Z12DirectacceptiP8sockaddrPj",
    "_Z13DirectconnectiPK8sockaddrj", "_Z11Directclosei", "_Z10DirectsendiPKvji",
    "_Z12DirectsendtoiPKvjiPK8sockaddrj", "_Z13DirectsendmsgiPK6msghdri", "_Z11DirectwriteiPKvj",
    "_Z10DirectrecviPvji", "_Z14DirectrecvfromiPvjiP8sockaddrPj", "_Z13DirectrecvmsgiP6msghdri",
    "_Z10DirectreadiPvj", "_Z17DirectgetaddrinfoPKcS0_PK8addrinfoPPS1_", "_Z17DirectgetsocknameiP8sockaddrPj",
    "_Z17DirectgetpeernameiP8sockaddrPj", "_Z16DirectgetsockoptiiiPvPj", "_Z16DirectsetsockoptiiiPKvj",
    "_Z12DirectselectiP6fd_setS0_S0_P7timeval", "_Z13DirectpselectiP6fd_setS0_S0_PK8timespecPK10__sigset_t"};

}  // namespace

TEST(AgentBinary, ExportsExactlyItsInterface) {
  std::set<std::string> expected = {"dlsym",        "globalInit",         "currentProcessId",
                                    "agentInterfaceUnplugged", "shouldBeLogged", "isOptionalSocketHook",
                                    "isOptionalSocketHook2",   "getCurrentTimePtr", "startupCalled",
                                    "startupCalledByMe",       "ExePath",
                                    "end", "active_handler", "restore_handler", "DisplaySymbol", "Mygethostbyname", "Mygethostname", "Mygetservbyport", "Mygetservbyname",
                                    "_Z21sendNotHookedBadArchiPKc",
                                    "_ZN14AgentInterface16emitEndOfProcessEPKcS1_x"};
  for (const char* name : kSocketExports) {
    expected.insert(name);
    const std::string init = std::string("Init") + name;
    expected.insert("_Z" + std::to_string(init.size()) + init + "v");
  }
  for (const char* name : kCompanionSignatures) expected.insert(name);
  // The complete-capture extension's entry points.
  for (const char* name : {"writev", "readv", "sendfile", "sendfile64", "accept4", "__recv_chk", "__recvfrom_chk",
                           "__read_chk"}) {
    expected.insert(name);
  }

  // The TLS libraries' functions, for the plaintext extension.
  for (const char* name : {"SSL_write", "SSL_read", "SSL_peek", "SSL_write_ex", "SSL_read_ex", "SSL_peek_ex",
                           "SSL_write_early_data", "SSL_read_early_data", "SSL_do_handshake", "SSL_connect",
                           "SSL_accept", "SSL_shutdown", "gnutls_record_send", "gnutls_record_send2",
                           "gnutls_record_send_range", "gnutls_record_recv", "gnutls_record_recv_seq",
                           "gnutls_handshake", "gnutls_bye", "gnutls_record_uncork", "gnutls_rehandshake",
                           "gnutls_reauth", "gnutls_session_key_update", "gnutls_alert_send", "SSL_new",
                           "SSL_CTX_set_keylog_callback", "SSL_CTX_get_keylog_callback", "gnutls_init",
                           "gnutls_session_set_keylog_function", "gnutls_session_get_keylog_function"}) {
    expected.insert(name);
  }

  std::set<std::string> actual;
  for (const auto& line : splitLines(tool({"/usr/bin/nm", "-D", "--defined-only", kAgentPath}))) {
    const size_t space = line.rfind(' ');
    if (space != std::string::npos) actual.insert(line.substr(space + 1));
  }
  if (kAbiBits == 64) {
    // The C++ names encode their parameter types, whose widths differ: size_t, int64_t. The
    // 64-bit agent must export the same functions, whatever their types are called there.
    expected = withoutParameterTypes(expected);
    actual = withoutParameterTypes(actual);
  }
  EXPECT_EQ(actual, expected);
}

TEST(AgentBinary, NeedsNothingButTheCLibrary) {
  std::set<std::string> needed;
  const std::regex entry(R"(\(NEEDED\)\s+Shared library: \[([^\]]+)\])");
  for (const auto& line : splitLines(tool({"/usr/bin/readelf", "-d", kAgentPath}))) {
    std::smatch m;
    if (std::regex_search(line, m, entry)) needed.insert(m[1]);
  }
  EXPECT_EQ(needed, (std::set<std::string>{"libc.so.6", "libdl.so.2"}));
}

TEST(AgentBinary, LoadsOnCLibrariesFrom2_17On) {
  const std::regex version(R"(GLIBC_(\d+)\.(\d+)(?:\.(\d+))?)");
  const std::string table = tool({"/usr/bin/objdump", "-T", kAgentPath});
  int versions = 0;
  for (auto it = std::sregex_iterator(table.begin(), table.end(), version); it != std::sregex_iterator(); ++it) {
    const int major = std::stoi((*it)[1]);
    const int minor = std::stoi((*it)[2]);
    EXPECT_TRUE(major < 2 || (major == 2 && minor <= 17)) << (*it)[0];
    ++versions;
  }
  EXPECT_GT(versions, 0);
}

TEST(AgentBinary, HasNoStaticConstructors) {
  const std::string symbols = tool({"/usr/bin/nm", kAgentPath});
  EXPECT_EQ(symbols.find("_GLOBAL__sub_I"), std::string::npos);
  // One pointer in the init array: the C runtime's own frame_dummy, which every shared object has.
  const std::string dynamic = tool({"/usr/bin/readelf", "-d", kAgentPath});
  EXPECT_EQ(linesContaining(dynamic, "(INIT_ARRAYSZ)").size(), 1u);
  for (const auto& line : linesContaining(dynamic, "(INIT_ARRAYSZ)")) {
    EXPECT_NE(line.find(kAbiBits == 64 ? " 8 (bytes)" : " 4 (bytes)"), std::string::npos) << line;
  }
  EXPECT_NE(symbols.find(" frame_dummy"), std::string::npos);
}
