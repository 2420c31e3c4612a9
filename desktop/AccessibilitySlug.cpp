#include "desktop/AccessibilitySlug.h"

#include <QStringList>

namespace kelvo {

QString accessibilitySlug(const QString& label) {
    QStringList runs;
    QString run;
    for (const QChar c : label) {
        if (c.isLetterOrNumber()) {
            run.append(c);
        } else if (!run.isEmpty()) {
            runs << run;
            run.clear();
        }
    }
    if (!run.isEmpty()) runs << run;
    return runs.join(QLatin1Char('-')).toLower();
}

}  // namespace kelvo
