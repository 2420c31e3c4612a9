// Two headless Kelvo instances with metrics, scraped by a real Prometheus server (Debian's
// `prometheus`) on loopback, asked through its HTTP API for what a fleet dashboard shows.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QUrl>
#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "tests/e2e/KelvoProcess.h"
#include "tests/metrics/HttpGet.h"

namespace {

using namespace std::chrono_literals;
using kelvo::test_support::freeLoopbackPort;
using kelvo::test_support::httpGet;

// What must happen, however slow the machine: the limit only ends a failing test.
constexpr auto kDeadline = 120s;

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        std::this_thread::sleep_for(200ms);
    }
    return condition();
}

// The result vector of an instant query, or an empty array.
QJsonArray query(int port, const QString& promql) {
    const QString path = QStringLiteral("/api/v1/query?query=") +
                         QString::fromLatin1(QUrl::toPercentEncoding(promql));
    const auto response = httpGet(port, path.toStdString());
    if (response.status != 200) return {};
    const auto document = QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
    return document.object()
        .value(QStringLiteral("data"))
        .toObject()
        .value(QStringLiteral("result"))
        .toArray();
}

std::string describe(const QJsonArray& result) {
    return QJsonDocument(result).toJson(QJsonDocument::Compact).toStdString();
}

TEST(PrometheusScrape, APrometheusServerSeesEveryFanAndTheModeOfTwoInstances) {
    const QString prometheus = QStringLiteral("/usr/bin/prometheus");
    if (!QFile::exists(prometheus))
        GTEST_SKIP() << "the prometheus server (Debian package prometheus) is not installed";

    struct Instance {
        QTemporaryDir home;
        int port = 0;
        std::unique_ptr<KelvoProcess> process;
    };
    std::vector<std::unique_ptr<Instance>> instances;
    const std::vector<QString> modes = {QStringLiteral("systemAuto"), QStringLiteral("quiet")};
    for (const QString& mode : modes) {
        auto instance = std::make_unique<Instance>();
        instance->port = freeLoopbackPort();
        QSettings settings(instance->home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("kelvo.control.mode"), mode);
        settings.sync();
        instance->process = std::make_unique<KelvoProcess>(instance->home);
        instance->process->start({QStringLiteral("--headless"),
                                  QStringLiteral("--harness-simulated-fans"),
                                  QStringLiteral("--metrics-listen"),
                                  QStringLiteral("127.0.0.1:%1").arg(instance->port)});
        instances.push_back(std::move(instance));
    }

    QTemporaryDir server;
    const int serverPort = freeLoopbackPort();
    {
        std::ofstream config(server.filePath(QStringLiteral("prometheus.yml")).toStdString());
        config << "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
               << "scrape_configs:\n  - job_name: kelvo\n    scrape_timeout: 1s\n"
               << "    static_configs:\n      - targets: ['127.0.0.1:" << instances[0]->port
               << "', '127.0.0.1:" << instances[1]->port << "']\n";
    }
    QProcess prometheusProcess;
    prometheusProcess.setProcessChannelMode(QProcess::MergedChannels);
    prometheusProcess.start(
        prometheus,
        {QStringLiteral("--config.file=") + server.filePath(QStringLiteral("prometheus.yml")),
         QStringLiteral("--storage.tsdb.path=") + server.filePath(QStringLiteral("data")),
         QStringLiteral("--web.listen-address=127.0.0.1:%1").arg(serverPort)});
    ASSERT_TRUE(prometheusProcess.waitForStarted(10000));
    const auto serverLog = [&] {
        return QString::fromUtf8(prometheusProcess.readAll()).toStdString();
    };

    // Two scrapes of each instance that found it up.
    const QString scrapes = QStringLiteral("sum_over_time(up{job=\"kelvo\"}[5m])");
    ASSERT_TRUE(waitFor(
        [&] {
            const QJsonArray result = query(serverPort, scrapes);
            int ready = 0;
            for (const auto& series : result)
                if (series.toObject()[QStringLiteral("value")].toArray()[1].toString().toDouble() >=
                    2)
                    ++ready;
            return ready == 2;
        },
        kDeadline))
        << describe(query(serverPort, scrapes)) << serverLog();

    const QJsonArray fans = query(serverPort, QStringLiteral("kelvo_fan_rpm"));
    std::map<std::string, std::set<std::string>> fansByInstance;
    for (const auto& series : fans) {
        const QJsonObject metric = series.toObject()[QStringLiteral("metric")].toObject();
        fansByInstance[metric[QStringLiteral("instance")].toString().toStdString()].insert(
            metric[QStringLiteral("fan")].toString().toStdString());
        EXPECT_GT(series.toObject()[QStringLiteral("value")].toArray()[1].toString().toDouble(), 0);
    }
    ASSERT_EQ(fansByInstance.size(), 2u) << describe(fans);
    for (const auto& [instance, names] : fansByInstance)
        EXPECT_EQ(names, (std::set<std::string>{"Simulated fan 1", "Simulated fan 2"})) << instance;

    const QJsonArray active = query(serverPort, QStringLiteral("kelvo_control_mode == 1"));
    std::map<int, std::string> modeByPort;
    for (const auto& series : active) {
        const QJsonObject metric = series.toObject()[QStringLiteral("metric")].toObject();
        const QString instance = metric[QStringLiteral("instance")].toString();
        modeByPort[instance.section(QLatin1Char(':'), -1).toInt()] =
            metric[QStringLiteral("kelvo_control_mode")].toString().toStdString();
    }
    EXPECT_EQ(modeByPort, (std::map<int, std::string>{{instances[0]->port, "systemAuto"},
                                                      {instances[1]->port, "quiet"}}))
        << describe(active);

    // Every query of the shipped Grafana dashboard answers with data on this fleet.
    QFile dashboardFile(QStringLiteral(KELVO_SOURCE_DIR "/packaging/grafana/kelvo.json"));
    ASSERT_TRUE(dashboardFile.open(QIODevice::ReadOnly));
    const QJsonObject dashboard = QJsonDocument::fromJson(dashboardFile.readAll()).object();
    int checked = 0;
    for (const auto& panel : dashboard[QStringLiteral("panels")].toArray()) {
        for (const auto& target : panel.toObject()[QStringLiteral("targets")].toArray()) {
            QString expr = target.toObject()[QStringLiteral("expr")].toString();
            expr.replace(QStringLiteral("$instance"), QStringLiteral(".*"));
            // Rates need a few scrapes in their window; the query itself must be sound now.
            EXPECT_TRUE(waitFor([&] { return !query(serverPort, expr).isEmpty(); }, 60s))
                << panel.toObject()[QStringLiteral("title")].toString().toStdString() << ": "
                << expr.toStdString();
            ++checked;
        }
    }
    EXPECT_GE(checked, 10);

    // The mode timeline shows each instance's mode by name: its query gives the mode's index,
    // which the panel's value mappings name.
    QString modeExpr;
    QJsonObject modeNames;
    for (const auto& panel : dashboard[QStringLiteral("panels")].toArray()) {
        const QJsonObject object = panel.toObject();
        if (object[QStringLiteral("title")].toString() != QLatin1String("Control mode")) continue;
        modeExpr = object[QStringLiteral("targets")]
                       .toArray()[0]
                       .toObject()[QStringLiteral("expr")]
                       .toString()
                       .replace(QStringLiteral("$instance"), QStringLiteral(".*"));
        modeNames = object[QStringLiteral("fieldConfig")]
                        .toObject()[QStringLiteral("defaults")]
                        .toObject()[QStringLiteral("mappings")]
                        .toArray()[0]
                        .toObject()[QStringLiteral("options")]
                        .toObject();
    }
    ASSERT_FALSE(modeExpr.isEmpty());
    std::map<int, std::string> shownModeByPort;
    for (const auto& series : query(serverPort, modeExpr)) {
        const QJsonObject object = series.toObject();
        const QString instance =
            object[QStringLiteral("metric")].toObject()[QStringLiteral("instance")].toString();
        const QString index = object[QStringLiteral("value")].toArray()[1].toString();
        shownModeByPort[instance.section(QLatin1Char(':'), -1).toInt()] =
            modeNames[index].toObject()[QStringLiteral("text")].toString().toStdString();
    }
    EXPECT_EQ(shownModeByPort, (std::map<int, std::string>{{instances[0]->port, "System"},
                                                           {instances[1]->port, "Quiet"}}))
        << modeExpr.toStdString();

    prometheusProcess.terminate();
    prometheusProcess.waitForFinished(15000);
    for (auto& instance : instances) EXPECT_EQ(instance->process->stopWith(SIGTERM), 0);
}

}  // namespace
