// The exceptions of the host's libraries. Exported by liborrery.so, so that they can be caught by
// type across library boundaries.
#pragma once

#include <stdexcept>
#include <string>

#include "orrery/Export.hpp"

namespace orrery {

class ORRERY_API Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& message);
  ~Exception() override;
};

// A stream that ended in a failure rather than at its end.
class ORRERY_API StreamException : public Exception {
 public:
  explicit StreamException(const std::string& message);
  ~StreamException() override;
};

}  // namespace orrery
