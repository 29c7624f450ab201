#include "core/server/process/RootProcess.h"

namespace core {

RootProcess::~RootProcess() = default;

} // namespace core
