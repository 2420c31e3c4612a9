// Draws one trend snapshot and the x-axis label sprites into the host item's scene-graph
// subtree. Geometry is built once per snapshot in plot fractions; a frame only writes the
// uniform block (shift and reveal), so its cost does not depend on the number of samples.
//
// Threading: update(), updateXAxisLabelSprites() and the per-frame setters run on the GUI
// thread and only touch CPU-side arrays. draw() runs while the scene graph is synchronised
// (the GUI thread is blocked then) and moves what changed into the scene-graph nodes.
#pragma once

#include <QImage>
#include <QRectF>
#include <QSizeF>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "trend_render/FixedViewportTrendLabelSprite.h"
#include "trend_render/LabelTextureCache.h"
#include "trend_render/TrendChartAppearance.h"
#include "trend_render/TrendVertex.h"

class QQuickWindow;
class QSGNode;

namespace kelvo {

class TrendRootNode;

class FixedViewportTrendRenderer {
public:
    struct LabelDrawCall {
        LabelTextureKey key;
        int vertexOffset = 0;
        int vertexCount = 0;
    };

    // Stores the snapshot and plot frame and rebuilds every geometry layer.
    void update(const FixedViewportTrendSnapshot& snapshot, const QRectF& plotFrame,
                const TrendChartAppearance& appearance);
    // Rebuilds the label vertices and draw calls; the live sprite is drawn last.
    void updateXAxisLabelSprites(std::span<const FixedViewportTrendLabelSprite> scrolling,
                                 const std::optional<FixedViewportTrendLabelSprite>& live,
                                 const TrendChartAppearance& appearance, double scale);
    // Drops every label (vertices and draw calls), resolving the style for `scale`.
    void clearLabels(const TrendChartAppearance& appearance, double scale);
    // Textures are made for one palette; after a palette change they are all dropped.
    void clearLabelTextureCache();

    void setShiftPixels(double shift) { shiftPixels_ = shift; }
    void setLiveRevealProgress(double progress) { liveRevealProgress_ = progress; }
    double shiftPixels() const { return shiftPixels_; }
    double liveRevealProgress() const { return liveRevealProgress_; }

    // Set by draw(), cleared by frameCompleted() once the frame is on screen: at most one
    // frame is in flight.
    bool frameInFlight() const { return frameInFlight_; }
    void frameCompleted() { frameInFlight_ = false; }

    // One frame: returns the subtree to show. While a frame is in flight it returns `oldRoot`
    // untouched (the frame is dropped). `window` is needed for label textures; without one
    // labels are left out. `clipRect` is the plot frame limited to the visible content.
    QSGNode* draw(QSGNode* oldRoot, QQuickWindow* window, const QSizeF& drawableSize,
                  const QRectF& clipRect);

    // The uniform block a frame writes for a layer.
    TrendUniformBlock frameUniforms(TrendLayerFlag flag, const QSizeF& drawableSize) const;

    // Rasterises a label with the label font and colour at `scale` device pixels per point.
    static QImage rasterizedLabelImage(const std::string& text,
                                       const TrendChartAppearance& appearance, double scale);
    static LabelTextureStyleKey resolvedLabelStyleKey(const TrendChartAppearance& appearance,
                                                      double scale);

    const std::optional<FixedViewportTrendSnapshot>& currentSnapshot() const {
        return currentSnapshot_;
    }
    const QRectF& plotFrame() const { return plotFrame_; }
    const std::vector<Vertex>& gridVertices() const { return gridVertices_; }
    const std::vector<Vertex>& axisTickVertices() const { return axisTickVertices_; }
    const std::vector<Vertex>& throttleBandVertices() const { return throttleBandVertices_; }
    const std::vector<std::vector<Vertex>>& seriesVertices() const { return seriesVertices_; }
    const std::vector<TextVertex>& labelVertices() const { return labelVertices_; }
    const std::vector<LabelDrawCall>& labelDrawCalls() const { return labelDrawCalls_; }
    // As of the last draw.
    const std::vector<LabelTextureKey>& labelTextureCacheOrder() const {
        return labelTextureCacheOrder_;
    }
    std::uint64_t geometryRebuildCount() const { return geometryGeneration_; }
    std::uint64_t drawnFrameCount() const { return drawnFrameCount_; }

private:
    void uploadGeometry(TrendRootNode& root) const;
    void syncLabels(TrendRootNode& root, QQuickWindow* window);
    void appendLabelVertices(const QRectF& frame, float opacity);
    const LabelTextureStyleKey& labelStyleKey(const TrendChartAppearance& appearance, double scale);

    std::optional<FixedViewportTrendSnapshot> currentSnapshot_;
    QRectF plotFrame_;
    TrendChartAppearance appearance_;
    std::vector<Vertex> gridVertices_;
    std::vector<Vertex> axisTickVertices_;
    std::vector<Vertex> throttleBandVertices_;
    std::vector<std::vector<Vertex>> seriesVertices_;
    std::uint64_t geometryGeneration_ = 0;

    std::vector<LabelDrawCall> labelDrawCalls_;
    std::vector<TextVertex> labelVertices_;
    double labelScale_ = 1;
    std::uint64_t labelGeneration_ = 0;
    bool labelTextureCacheClearPending_ = false;
    std::vector<LabelTextureKey> labelTextureCacheOrder_;
    int cachedLabelStyleScale_ = 0;
    std::optional<QString> cachedLabelStyleAppearanceName_;
    LabelTextureStyleKey cachedLabelStyleValue_;

    bool frameInFlight_ = false;
    std::uint64_t drawnFrameCount_ = 0;
    double shiftPixels_ = 0;
    double liveRevealProgress_ = 1;
};

}  // namespace kelvo
