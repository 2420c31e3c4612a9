// The one Qt application of the benchmark process. Benchmarks run in one process in any order,
// and Qt allows one application object: a core one made first would leave the chart benchmarks,
// which need fonts and the palette, without a GUI application.
#pragma once

#include <QGuiApplication>

namespace kelvo::bench {

// Made on first use, on the offscreen platform (no display needed), and kept to the end.
QGuiApplication& benchApplication();

}  // namespace kelvo::bench
