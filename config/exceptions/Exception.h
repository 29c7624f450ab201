#pragma once

#include <QByteArray>
#include <QException>
#include <QString>

// Root of every error the product library raises. raise() and clone() deliberately
// produce a plain Exception: whatever travels through Qt's exception transfer arrives
// as the base type with code and message only.
class Exception : public QException
{
public:
    explicit Exception(const QString &message, int code = 0);
    Exception(const Exception &other) = default;
    Exception &operator=(const Exception &other) = default;
    ~Exception() override;

    const char *what() const noexcept override;
    void raise() const override;
    Exception *clone() const override;

    int code() const { return m_code; }
    QString message() const { return m_message; }

private:
    int m_code;
    QString m_message;
    // what() hands out a pointer into this, so it must live as long as the object.
    QByteArray m_what;
};
