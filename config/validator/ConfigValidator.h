#pragma once

#include <QSettings>
#include <QStringList>

namespace config {

// Rejects configurations with missing, unknown or half-set keys. Reads the settings
// only; the first broken rule throws and ends validation.
class ConfigValidator
{
public:
    explicit ConfigValidator(const QSettings &settings);
    virtual ~ConfigValidator();

    virtual void validate();

protected:
    // All keys of the group present, or none of them.
    void checkAllOrNone(const QStringList &group) const;

    const QSettings &m_settings;
    QStringList m_requiredKeys;
    QStringList m_optionalKeys;
    QStringList m_ignoredKeys;

private:
    void checkUnknownKeys(const QStringList &remaining) const;
};

} // namespace config
