#include "BenchApplication.h"

namespace kelvo::bench {

QGuiApplication& benchApplication() {
    static QGuiApplication* app = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "kelvo_bench";
        static char* argv[] = {name, nullptr};
        return new QGuiApplication(argc, argv);
    }();
    return *app;
}

}  // namespace kelvo::bench
