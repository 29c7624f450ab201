#include "core/server/process/PostgresProcess.h"

namespace core {

PostgresProcess::~PostgresProcess() = default;

} // namespace core
