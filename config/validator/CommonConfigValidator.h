#pragma once

#include "config/validator/ConfigValidator.h"

namespace config {

class CommonConfigValidator : public ConfigValidator
{
public:
    explicit CommonConfigValidator(const QSettings &settings);
    ~CommonConfigValidator() override;

    void validate() override;
};

} // namespace config
