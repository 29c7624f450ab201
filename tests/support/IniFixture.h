#pragma once

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>

#include <memory>

// A scoped temporary directory holding one INI configuration file.
class IniFixture : public ::testing::Test
{
protected:
    QString iniPath() const { return m_dir.filePath(QStringLiteral("config.ini")); }
    QString dirPath() const { return m_dir.path(); }

    void writeIni(const QByteArray &text) const
    {
        QFile file(iniPath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }

    QByteArray readIni() const
    {
        QFile file(iniPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::unique_ptr<QSettings> settings(QSettings::Format format = QSettings::IniFormat) const
    {
        return std::make_unique<QSettings>(iniPath(), format);
    }

private:
    QTemporaryDir m_dir;
};
