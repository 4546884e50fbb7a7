// Calls and the end of the process: a detached thread may be inside one while `exit` destroys what
// the libraries under it need.
#pragma once

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Held by a thread as long as it is inside the engine. Where `exit` has begun, those calls are
/// stopped, and it waits a second at most for their threads to leave.
class TOVREN_EXPORT UnderWay {
 public:
  /// Throws Stopped when the process ends.
  UnderWay();
  UnderWay(const UnderWay&) = delete;
  UnderWay& operator=(const UnderWay&) = delete;
  ~UnderWay();
};

/// Throws Stopped when the process ends. To be asked in every wait.
void check_process();

}  // namespace tovren_mapstead::engines::http
