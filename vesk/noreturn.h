// Calls that never come back.
//
// A procedure whose last instructions are a call returns, if the callee
// returns, into the procedure that follows it, and one without a return
// runs on into it: both must then stay in front of their successor.
// Compilers put a call last, and leave a procedure without a return, only
// when the callee never returns (exit, abort, longjmp, a function of the
// program that ends in such a call), and then nothing ties them.
#pragma once

#include <memory>

#include "base/proc.h"

namespace vesk {

class NoReturn {
public:
  // Reads what the input says about its callees (the GOT, the dynamic
  // symbols that name the GOT's global entries, the procedure table) as
  // the questions first need it.
  NoReturn();
  ~NoReturn();
  // True when p's last call (the word before its last delay slot) goes to a
  // callee known never to return.
  bool ends_in_call_that_never_returns(const Proc *p);

private:
  bool never_returns(const Proc *q);
  void read_global_got();
  void index_parts();
  struct State;
  std::unique_ptr<State> s_;
};

} // namespace vesk
