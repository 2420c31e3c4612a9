// The trend chart's costs on the GUI thread: one animation frame (tick: display bound, shift,
// reveal, label relayout when due, and the uniform update of the frame) at 10 and 1202 samples
// per series, and one geometry rebuild (build plus copy into the scene-graph nodes) for 1202
// samples × 7 series. A frame must cost the same whatever the number of samples.
#include <benchmark/benchmark.h>

#include <QSGNode>
#include <cmath>
#include <memory>

#include "BenchApplication.h"
#include "dashboard/TrendReferenceLabels.h"
#include "trend_render/FixedViewportTrendHostItem.h"

namespace {

using kelvo::Timestamp;

constexpr Timestamp kReference = 1'700'000'000;
const QRectF kPlot{40, 12, 1000, 220};

// The viewport of a snapshot whose newest sample is at `reference`, with its minute ticks.
void placeAt(kelvo::FixedViewportTrendSnapshot& snapshot, Timestamp reference) {
    snapshot.viewportDomain = kelvo::FixedViewportTrendViewportDomain::make(reference, 300, 1);
    snapshot.liveRevealDurationSeconds = 1;
    const double lower = snapshot.viewportDomain.visibleLowerBound();
    snapshot.xAxisTicks.clear();
    for (int minute = 1; minute <= 5; ++minute) {
        const Timestamp date = std::floor(lower / 60) * 60 + 60 * minute;
        snapshot.xAxisTicks.push_back(
            {date, kelvo::FixedViewportTrendAxisLabels::text(date, 300), (date - lower) / 300});
    }
}

// Seven series (the fan preview dashed) of `samples` points over the five-minute window.
kelvo::FixedViewportTrendSnapshot makeSnapshot(int samples) {
    kelvo::FixedViewportTrendSnapshot snapshot;
    placeAt(snapshot, kReference);
    snapshot.throttleBands = {{0.2f, 0.3f, {1, 0, 0, 0.12f}}, {0.6f, 0.65f, {1, 0, 0, 0.12f}}};
    for (int s = 0; s < 7; ++s) {
        kelvo::FixedViewportTrendSeriesSnapshot series;
        series.color = {0.2f * s / 7, 0.5f, 1.0f - 0.1f * s, 1};
        if (s == 5) series.dashPatternPixels = std::array<float, 2>{5, 6};
        std::vector<kelvo::TrendPoint> points;
        points.reserve(static_cast<std::size_t>(samples));
        for (int i = 0; i < samples; ++i) {
            const double x = -1.0 / 300 + (1.0 + 2.0 / 300) * i / std::max(1, samples - 1);
            const double y = 0.5 + 0.3 * std::sin(i * 0.05 + s) + 0.05 * std::sin(i * 0.9);
            points.push_back({static_cast<float>(x), static_cast<float>(y)});
        }
        series.segments.push_back(std::move(points));
        snapshot.series.push_back(std::move(series));
    }
    return snapshot;
}

// Animation frames at 60 per second over one snapshot: the display bound advances, the plot
// shifts, the x-axis labels scroll and fade out on the left and the live label ticks over every
// second. Newer samples are announced far ahead so the display never catches up. Every 6000
// frames (100 s) the chart starts again from its snapshot, untimed, so the labels keep
// scrolling through the plot however many frames are measured. No geometry is rebuilt within
// the frames (checked); the rebuild is BM_RendererUpload.
class FrameRig {
public:
    static constexpr std::uint64_t kFramesPerRun = 6000;

    explicit FrameRig(const kelvo::FixedViewportTrendSnapshot& snapshot) {
        host_.setClocks([this] { return wall_; }, [this] { return media_; });
        host_.setSize(QSizeF(1080, 260));
        host_.update(snapshot, kReference + 1e6, kPlot,
                     kelvo::fixedViewportTrendReferenceXAxisLabels(snapshot.xAxisTicks, kPlot));
        root_.reset(host_.renderer().draw(nullptr, nullptr, QSizeF(1080, 260), kPlot));
        rebuilds_ = host_.renderer().geometryRebuildCount();
    }

    std::size_t frame() {
        wall_ += 1.0 / 60;
        media_ += 1.0 / 60;
        host_.advanceFrame(wall_);
        auto& renderer = host_.renderer();
        renderer.frameCompleted();
        renderer.draw(root_.get(), nullptr, QSizeF(1080, 260), kPlot);
        return renderer.labelDrawCalls().size();
    }
    bool rebuiltGeometry() { return host_.renderer().geometryRebuildCount() != rebuilds_; }

private:
    Timestamp wall_ = kReference;
    double media_ = 1000;
    kelvo::FixedViewportTrendHostItem host_;
    std::unique_ptr<QSGNode> root_;
    std::uint64_t rebuilds_ = 0;
};

void BM_RendererFrame(benchmark::State& state) {
    kelvo::bench::benchApplication();
    const auto snapshot = makeSnapshot(static_cast<int>(state.range(0)));
    auto rig = std::make_unique<FrameRig>(snapshot);
    std::uint64_t frames = 0;
    std::size_t labels = 0;
    bool rebuilt = false;
    for (auto _ : state) {
        if (++frames % FrameRig::kFramesPerRun == 0) {
            state.PauseTiming();
            rebuilt = rebuilt || rig->rebuiltGeometry();
            rig = std::make_unique<FrameRig>(snapshot);
            state.ResumeTiming();
        }
        labels += rig->frame();
    }
    if (rebuilt || rig->rebuiltGeometry())
        state.SkipWithError("geometry was rebuilt within a frame");
    state.counters["series"] = static_cast<double>(snapshot.series.size());
    state.counters["labels_per_frame"] = static_cast<double>(labels) / static_cast<double>(frames);
}
BENCHMARK(BM_RendererFrame)->Arg(10)->Arg(1202)->Unit(benchmark::kMicrosecond);

void BM_RendererUpload(benchmark::State& state) {
    kelvo::bench::benchApplication();
    const auto snapshot = makeSnapshot(static_cast<int>(state.range(0)));
    const auto appearance = kelvo::TrendChartAppearance::current();
    kelvo::FixedViewportTrendRenderer renderer;
    QSGNode* root = nullptr;
    std::size_t vertices = 0;
    for (auto _ : state) {
        renderer.update(snapshot, kPlot, appearance);
        renderer.frameCompleted();
        root = renderer.draw(root, nullptr, QSizeF(1080, 260), kPlot);
        benchmark::DoNotOptimize(root);
    }
    for (const auto& series : renderer.seriesVertices()) vertices += series.size();
    state.counters["series_vertices"] = static_cast<double>(vertices);
    delete root;
}
BENCHMARK(BM_RendererUpload)->Arg(1202)->Unit(benchmark::kMillisecond);

}  // namespace
