#include "config/validator/CommonConfigValidator.h"

namespace config {

CommonConfigValidator::CommonConfigValidator(const QSettings &settings)
    : ConfigValidator(settings)
{ }

CommonConfigValidator::~CommonConfigValidator() = default;

void CommonConfigValidator::validate()
{
    ConfigValidator::validate();
    checkAllOrNone({QStringLiteral("logger/logfile"), QStringLiteral("logger/loglevel")});
    checkAllOrNone({QStringLiteral("logger/syslog"), QStringLiteral("logger/syslog_level")});
}

} // namespace config
