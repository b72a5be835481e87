// Marks the threads that are inside the agent. A hooked call that arrives on such a thread (a
// signal handler that interrupted a handler, or a library the agent itself calls that calls back
// into the socket functions) must go straight to the C library: the interrupted handler may hold
// any of the agent's locks, and waiting on it would wait for ever.
#pragma once

// initial-exec: the agent is preloaded, so its thread-local block is part of every thread's
// static TLS, and reaching it costs no call (a dynamic TLS lookup could allocate).
extern __thread int agentDepth __attribute__((tls_model("initial-exec")));

inline bool insideAgent() { return agentDepth != 0; }

class AgentScope {
 public:
  AgentScope() { ++agentDepth; }
  ~AgentScope() { --agentDepth; }
  AgentScope(const AgentScope&) = delete;
  AgentScope& operator=(const AgentScope&) = delete;
};
