#include "core/PostgresProcess.h"

namespace core {

PostgresProcess::~PostgresProcess() = default;

} // namespace core
