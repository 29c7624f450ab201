#include "core/RootProcess.h"

namespace core {

RootProcess::~RootProcess() = default;

} // namespace core
