#include "app/run/OptionSpelling.h"

#include <QVector>

#include <algorithm>

QString OptionSpelling::resembled(const QString &argument, const QStringList &options)
{
    if (!argument.startsWith(QLatin1String("--")) || options.contains(argument))
        return QString();
    // "--jobs=4" is spelt by its name.
    const QString name = argument.section(QLatin1Char('='), 0, 0).toLower().replace(QLatin1Char('_'), QLatin1Char('-'));
    QString best;
    int bestDistance = kMostEdits + 1;
    for (const QString &option : options) {
        // A short name is easily near another word; it must be a cut of the option instead.
        const bool cut = name.size() > 3 && option.startsWith(name);
        const int edits = cut ? 1 : distance(name, option);
        if (edits < bestDistance && (edits <= kMostEdits && option.size() - 2 > 2 * edits)) {
            best = option;
            bestDistance = edits;
        }
    }
    return best;
}

// Damerau-Levenshtein distance, with transpositions of neighbours.
int OptionSpelling::distance(const QString &a, const QString &b)
{
    const int n = a.size();
    const int m = b.size();
    QVector<QVector<int>> d(n + 1, QVector<int>(m + 1));
    for (int i = 0; i <= n; ++i)
        d[i][0] = i;
    for (int j = 0; j <= m; ++j)
        d[0][j] = j;
    for (int i = 1; i <= n; ++i) {
        for (int j = 1; j <= m; ++j) {
            const int cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[n][m];
}
