// What became of a connect that the SOCKS routing looked at, as the connect handler acts on it.
#pragma once

enum SocksStatus {
  SOCKS_UNREACHABLE = -1,
  SOCKS_NOT_REROUTED = 0,
  SOCKS_REROUTED = 1,
  SOCKS_LOCAL_LOOP = 2,
  SOCKS_FAILED = 3,
  SOCKS_TARGET_REFUSED = 4,
};
