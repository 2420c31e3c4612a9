// Readable failure output for Qt strings in GoogleTest assertions.
#pragma once

#include <QString>
#include <QStringList>
#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* os) {
    *os << '[';
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (i > 0) *os << ", ";
        PrintTo(list.at(i), os);
    }
    *os << ']';
}
