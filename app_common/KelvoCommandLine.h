// kelvo's command line: every flag it knows, with a sentence each for --help, read before the
// application object exists (so that --help, --version and a mistyped flag answer without a
// display). Older flag names stay accepted as aliases; what the rest of the program reads is the
// arguments list with each alias replaced by the name the program checks.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

#include "foundation/core/Types.h"

namespace kelvo {

struct KelvoCommandLine {
    enum class Outcome { run, help, version, error };
    Outcome outcome = Outcome::run;
    // The help or version text (for standard output), or what is wrong (for standard error,
    // followed by the usage).
    QString text;
    // The program name and every flag given, with its values, under the name the program checks
    // (an alias becomes that name). Qt's own options (-platform, -style, ...) are accepted and
    // left to Qt, which reads them from argv.
    QStringList arguments;
    bool headless = false;
    std::optional<ControlMode> mode;

    static KelvoCommandLine parse(const QStringList& arguments);
    static KelvoCommandLine parse(int argc, char** argv);
    // The usage line and the options, as --help prints them.
    static QString helpText();
    // "kelvo 1.2.3 (build 45)".
    static QString versionText();
};

// "system", "quiet", "quietHybrid" (or "quiet-hybrid"), "performance", in any case.
std::optional<ControlMode> controlModeFromCommandLine(const QString& value);

}  // namespace kelvo
