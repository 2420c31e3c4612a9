// Kelvo (and, where asked, kelvo-helperd) running unmodified against a mounted kelvo-simhw: the
// rig the end-to-end tests on the simulated machine share.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <QMap>
#include <QSettings>
#include <QTemporaryDir>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/KelvoProcess.h"
#include "tests/e2e/LiveDatabase.h"
#include "tests/helper/HelperTestSupport.h"
#include "tests/simhw/SimhwProcess.h"

namespace kelvo::test_support {

using namespace std::chrono_literals;

// What must happen, however slow the machine: the limits only end a test that is failing.
inline constexpr auto kSlowDeadline = 240s;

// The simulated machine's fan chip as Kelvo names its fans.
inline constexpr const char* kSimFan1 = "nct6798@/sys/devices/platform/nct6775.656#fan1";
inline constexpr const char* kSimFan2 = "nct6798@/sys/devices/platform/nct6775.656#fan2";

class SimhwRig {
public:
    SimhwRig() {
        char pattern[] = "/tmp/kelvo-simhw-e2e-XXXXXX";
        if (::mkdtemp(pattern)) dir_ = pattern;
        ::chmod(dir_.c_str(), 0755);
    }
    ~SimhwRig() {
        kelvo_.reset();
        helper_.reset();
        sim_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    // Mounts the machine (JSON text) with an optional trace (JSON text).
    bool mount(const std::string& machineJson, const std::string& traceJson = {}) {
        sim_ = std::make_unique<SimhwProcess>(dir_ / "sim", machineJson);
        std::vector<std::string> extra;
        if (!traceJson.empty()) {
            std::ofstream(dir_ / "trace.json") << traceJson;
            extra = {"--trace", (dir_ / "trace.json").string()};
        }
        return sim_->start(extra);
    }

    // `configuration`: the text of a helper configuration file to start it with, if any.
    bool startHelper(const std::string& configuration = {}) {
        std::filesystem::create_directories(dir_ / "helper");
        // The helper refuses a runtime directory others may write, whatever umask the run has.
        std::filesystem::permissions(dir_ / "helper", std::filesystem::perms(0755));
        std::vector<std::string> arguments;
        if (!configuration.empty()) {
            const auto path = dir_ / "helperd.conf";
            std::ofstream(path) << configuration;
            std::filesystem::permissions(
                path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
            arguments = {"--config", path.string()};
        }
        helper_ =
            std::make_unique<HelperDaemon>(sim_->mountPoint().string(), dir_ / "helper", arguments);
        return helper_->start();
    }

    // Kelvo in `mode`, on the local back-end or through the helper started above.
    void startKelvo(const QString& mode) {
        QSettings settings(home_.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("kelvo.control.mode"), mode);
        settings.sync();
        kelvo_ = std::make_unique<KelvoProcess>(home_);
        if (!environment_.isEmpty()) {
            auto env = kelvo_->process.processEnvironment();
            for (auto it = environment_.begin(); it != environment_.end(); ++it)
                env.insert(it.key(), it.value());
            kelvo_->process.setProcessEnvironment(env);
        }
        // Failures are reported on standard error; one stream keeps their order with the log.
        kelvo_->process.setProcessChannelMode(QProcess::MergedChannels);
        QStringList args = {QStringLiteral("--headless"), QStringLiteral("--sysfs-root"),
                            QString::fromStdString(sim_->mountPoint().string())};
        if (helper_)
            args << QStringLiteral("--xpc-only-fans") << QStringLiteral("--helper-socket")
                 << QString::fromStdString(helper_->socketPath());
        else
            args << QStringLiteral("--local-only-fans");
        kelvo_->start(args);
    }

    // A setting Kelvo starts with (in its settings file, as the dashboard or kelvoctl store it).
    void setSetting(const QString& key, const QString& value) {
        QSettings settings(home_.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(key, value);
        settings.sync();
    }
    // How often kelvo-simhw accepted a write to `fanN`'s pwm ("pwm") or pwm_enable ("enable").
    long writesTo(int fan, const std::string& attribute) const {
        std::istringstream lines(slurp(sim_->at("simhw/writes")));
        const std::string prefix = "fan" + std::to_string(fan) + " " + attribute + " ";
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(prefix, 0) == 0) return std::stol(line.substr(prefix.size()));
        return -1;
    }

    // Variables Kelvo is started with, on top of this process's environment.
    void setKelvoEnvironment(const QString& name, const QString& value) {
        environment_.insert(name, value);
    }
    long long eventsWith(const std::string& message) const {
        return queryNumber(home_.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                           "SELECT count(*) FROM events WHERE message = '" + message + "'");
    }

    SimhwProcess& sim() { return *sim_; }
    KelvoProcess& kelvo() { return *kelvo_; }
    HelperDaemon* helper() { return helper_.get(); }

    std::string chipFile(const std::string& name, const std::string& chip = "hwmon2") const {
        return readAttribute(sim_->at("sys/class/hwmon/" + chip + "/" + name)).value_or("?");
    }
    bool everyFanOnFirmware(const std::string& chip = "hwmon2") const {
        return chipFile("pwm1_enable", chip) == "2" && chipFile("pwm2_enable", chip) == "2";
    }
    long long learnedCurves() const {
        return queryNumber(home_.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                           "SELECT count(*) FROM fan_curves WHERE fan_identity LIKE "
                           "'nct6798@/sys/devices/platform/nct6775.656#fan%'");
    }
    // Waits for a line of Kelvo's output containing `text`.
    bool saw(const QString& text, int timeoutMs = 60000) {
        return kelvo_->waitForLine(QRegularExpression::escape(text), timeoutMs);
    }
    std::string transcript() const { return kelvo_->transcript() + "\n" + sim_->log(); }

    // The simulated machine's log, one row a second: column `name` of every row.
    std::vector<double> logColumn(const std::string& name) const {
        std::ifstream csv(sim_->csvPath());
        std::string line;
        std::getline(csv, line);
        std::vector<std::string> header;
        std::stringstream headerStream(line);
        for (std::string cell; std::getline(headerStream, cell, ',');) header.push_back(cell);
        const auto column = std::find(header.begin(), header.end(), name) - header.begin();
        std::vector<double> values;
        while (std::getline(csv, line)) {
            std::stringstream row(line);
            std::string cell;
            for (long i = 0; std::getline(row, cell, ','); ++i)
                if (i == column) values.push_back(std::stod(cell));
        }
        return values;
    }

private:
    std::filesystem::path dir_;
    QTemporaryDir home_;
    std::unique_ptr<SimhwProcess> sim_;
    std::unique_ptr<HelperDaemon> helper_;
    std::unique_ptr<KelvoProcess> kelvo_;
    QMap<QString, QString> environment_;
};

#define SKIP_WITHOUT_FUSE()                                                                 \
    do {                                                                                    \
        if (std::string why = ::kelvo::test_support::fuseUnavailableReason(); !why.empty()) \
            GTEST_SKIP() << "kelvo-simhw cannot mount here: " << why;                       \
    } while (false)

}  // namespace kelvo::test_support
