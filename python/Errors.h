// The binding's exceptions, raised in Python as lumetra_depth.Error and its
// subclasses NotReady and Timeout.
#pragma once

#include <stdexcept>

namespace LumoPython {

// A library call failed, a configuration was refused, or the handle is closed.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Nothing to hand out yet: no depth, rectified image or cloud so far.
class NotReady : public Error {
 public:
  using Error::Error;
};

// A synchronous feed waited for its depth in vain.
class Timeout : public Error {
 public:
  using Error::Error;
};

}  // namespace LumoPython
