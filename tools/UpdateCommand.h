// kelvoctl's update commands: check the feed, make a signing key pair, sign a release and print
// its appcast item.
#pragma once

#include <cstdio>

#include <QStringList>

namespace kelvo::kelvoctl {

// The words after "update"; returns the process exit status.
int runUpdateCommand(const QStringList& words);
void printUpdateUsage(std::FILE* stream = stderr);

}  // namespace kelvo::kelvoctl
