#include "updates/UpdateVersionComparator.h"

#include <QStringList>

namespace kelvo::UpdateVersionComparator {

namespace {

enum class PartKind { number, text, separator };

struct Part {
    PartKind kind;
    QString text;
};

PartKind kindOf(QChar c) {
    if (c.isDigit()) return PartKind::number;
    if (c == QLatin1Char('.') || c == QLatin1Char('-') || c == QLatin1Char('_') ||
        c == QLatin1Char('+') || c.isSpace())
        return PartKind::separator;
    return PartKind::text;
}

// "1.0b12" -> 1 . 0 b 12: runs of digits, runs of other characters, and single separators.
QList<Part> split(const QString& version) {
    QList<Part> parts;
    for (QChar c : version) {
        const PartKind kind = kindOf(c);
        if (!parts.isEmpty() && parts.last().kind == kind && kind != PartKind::separator)
            parts.last().text.append(c);
        else
            parts.append({kind, QString(c)});
    }
    return parts;
}

// Numbers of any length compare by value: drop leading zeros, then the longer is larger.
int compareNumbers(QString a, QString b) {
    while (a.size() > 1 && a.startsWith(QLatin1Char('0'))) a.remove(0, 1);
    while (b.size() > 1 && b.startsWith(QLatin1Char('0'))) b.remove(0, 1);
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return a.compare(b);
}

int sign(int value) {
    return (value > 0) - (value < 0);
}

int compareParts(const Part& a, const Part& b) {
    if (a.kind == b.kind) {
        if (a.kind == PartKind::number) return compareNumbers(a.text, b.text);
        if (a.kind == PartKind::text) return sign(a.text.compare(b.text));
        return 0;
    }
    // A number outranks a pre-release word and a separator: "1.0.1" > "1.0b1".
    if (a.kind == PartKind::number) return 1;
    if (b.kind == PartKind::number) return -1;
    // A separator leads on to a further number, which outranks a pre-release word.
    return a.kind == PartKind::separator ? 1 : -1;
}

}  // namespace

int compare(const QString& a, const QString& b) {
    const QList<Part> left = split(a.trimmed());
    const QList<Part> right = split(b.trimmed());
    const qsizetype common = std::min(left.size(), right.size());
    for (qsizetype i = 0; i < common; ++i) {
        const int result = compareParts(left[i], right[i]);
        if (result != 0) return result;
    }
    if (left.size() == right.size()) return 0;
    // One runs on: a trailing word is a pre-release ("1.0b" < "1.0"), anything else is newer.
    const bool leftLonger = left.size() > right.size();
    const Part& next = leftLonger ? left[common] : right[common];
    const bool longerIsNewer = next.kind != PartKind::text;
    return (leftLonger == longerIsNewer) ? 1 : -1;
}

}  // namespace kelvo::UpdateVersionComparator
