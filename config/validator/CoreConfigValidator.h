#pragma once

#include "config/validator/CommonConfigValidator.h"

namespace core {

class CoreConfigValidator : public config::CommonConfigValidator
{
public:
    explicit CoreConfigValidator(const QSettings &settings);
    ~CoreConfigValidator() override;

    void validate() override;

private:
    void validateBaseTolerating(const QString &prefix);
    void checkUnsignedRange(
        const QString &key, qulonglong defaultValue, qulonglong low, qulonglong high, const QString &message) const;
    void checkDbMode() const;
};

} // namespace core
