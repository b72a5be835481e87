#include "interpose/reentry_guard.h"

__thread int agentDepth __attribute__((tls_model("initial-exec"))) = 0;
