#include "parallel/fd.h"

namespace Parallel {

Fd::Fd() : prev(this), next(this), last_active(0), notify_enabled(0), read_blocked(0) {}

Fd::~Fd() {}

}  // namespace Parallel
