#include "trend_render/FixedViewportTrendRenderer.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QQuickWindow>
#include <algorithm>
#include <cmath>

#include "trend_render/TrendPlotGeometry.h"
#include "trend_render/TrendRootNode.h"
#include "trend_render/TrendSeriesGeometry.h"

namespace kelvo {

namespace {
constexpr int kVerticesPerLabel = 6;

int rounded(double value) {
    return static_cast<int>(std::lround(value));
}
}  // namespace

void FixedViewportTrendRenderer::update(const FixedViewportTrendSnapshot& snapshot,
                                        const QRectF& plotFrame,
                                        const TrendChartAppearance& appearance) {
    currentSnapshot_ = snapshot;
    plotFrame_ = plotFrame;
    appearance_ = appearance;
    const QSizeF plotSize = plotFrame.size();
    gridVertices_ =
        buildPlotGridVertices(snapshot.xAxisTicks, plotSize, appearance.horizontalGridColor(),
                              appearance.verticalGridColor());
    axisTickVertices_ =
        buildAxisTickVertices(snapshot.xAxisTicks, plotSize, appearance.axisTickColor());
    throttleBandVertices_ = buildThrottleBandVertices(snapshot.throttleBands, true);
    seriesVertices_.resize(snapshot.series.size());
    for (std::size_t i = 0; i < snapshot.series.size(); ++i)
        buildSeriesVertices(snapshot.series[i], plotSize, snapshot.viewportDomain,
                            seriesVertices_[i]);
    ++geometryGeneration_;
}

const LabelTextureStyleKey& FixedViewportTrendRenderer::labelStyleKey(
    const TrendChartAppearance& appearance, double scale) {
    const int scaleKey = rounded(scale * 100);
    if (scaleKey != cachedLabelStyleScale_ || cachedLabelStyleAppearanceName_ != appearance.name) {
        cachedLabelStyleValue_ = resolvedLabelStyleKey(appearance, scale);
        cachedLabelStyleScale_ = scaleKey;
        cachedLabelStyleAppearanceName_ = appearance.name;
    }
    return cachedLabelStyleValue_;
}

LabelTextureStyleKey FixedViewportTrendRenderer::resolvedLabelStyleKey(
    const TrendChartAppearance& appearance, double scale) {
    const QColor color = appearance.labelColor.toRgb();
    return {rounded(scale * 100), rounded(color.redF() * 255), rounded(color.greenF() * 255),
            rounded(color.blueF() * 255), rounded(color.alphaF() * 255)};
}

void FixedViewportTrendRenderer::updateXAxisLabelSprites(
    std::span<const FixedViewportTrendLabelSprite> scrolling,
    const std::optional<FixedViewportTrendLabelSprite>& live,
    const TrendChartAppearance& appearance, double scale) {
    const LabelTextureStyleKey style = labelStyleKey(appearance, scale);
    appearance_ = appearance;
    labelScale_ = scale;
    labelVertices_.clear();
    labelDrawCalls_.clear();
    auto append = [&](const FixedViewportTrendLabelSprite& sprite) {
        if (sprite.text.empty() || sprite.frame.isEmpty()) return;
        const int offset = static_cast<int>(labelVertices_.size());
        appendLabelVertices(sprite.frame, sprite.opacity);
        labelDrawCalls_.push_back({{sprite.text, style}, offset, kVerticesPerLabel});
    };
    for (const auto& sprite : scrolling) append(sprite);
    if (live) append(*live);
    ++labelGeneration_;
}

void FixedViewportTrendRenderer::clearLabels(const TrendChartAppearance& appearance, double scale) {
    labelStyleKey(appearance, scale);
    labelVertices_.clear();
    labelDrawCalls_.clear();
    ++labelGeneration_;
}

void FixedViewportTrendRenderer::clearLabelTextureCache() {
    labelTextureCacheClearPending_ = true;
    labelTextureCacheOrder_.clear();
    cachedLabelStyleAppearanceName_.reset();
    ++labelGeneration_;
}

void FixedViewportTrendRenderer::appendLabelVertices(const QRectF& frame, float opacity) {
    const auto x0 = static_cast<float>(frame.left());
    const auto x1 = static_cast<float>(frame.right());
    const auto y0 = static_cast<float>(frame.top());
    const auto y1 = static_cast<float>(frame.bottom());
    const std::array<float, 4> color{1, 1, 1, opacity};
    labelVertices_.insert(
        labelVertices_.end(),
        {TextVertex{{x0, y0}, {0, 0}, color}, TextVertex{{x1, y0}, {1, 0}, color},
         TextVertex{{x1, y1}, {1, 1}, color}, TextVertex{{x0, y0}, {0, 0}, color},
         TextVertex{{x1, y1}, {1, 1}, color}, TextVertex{{x0, y1}, {0, 1}, color}});
}

QImage FixedViewportTrendRenderer::rasterizedLabelImage(const std::string& text,
                                                        const TrendChartAppearance& appearance,
                                                        double scale) {
    const QString label = QString::fromStdString(text);
    const QFont font = TrendChartAppearance::labelFont();
    const QFontMetricsF metrics(font);
    const QSize pixels(static_cast<int>(std::ceil(metrics.horizontalAdvance(label) * scale)),
                       static_cast<int>(std::ceil(metrics.height() * scale)));
    if (pixels.isEmpty()) return {};
    QImage image(pixels, QImage::Format_RGBA8888_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.scale(scale, scale);
    painter.setFont(font);
    painter.setPen(appearance.labelColor);
    painter.drawText(QPointF(0, metrics.ascent()), label);
    return image;
}

TrendUniformBlock FixedViewportTrendRenderer::frameUniforms(TrendLayerFlag flag,
                                                            const QSizeF& drawableSize) const {
    TrendUniformBlock block;
    block.drawableSize = {static_cast<float>(std::max(1.0, drawableSize.width())),
                          static_cast<float>(std::max(1.0, drawableSize.height()))};
    block.plotOrigin = {static_cast<float>(plotFrame_.x()), static_cast<float>(plotFrame_.y())};
    block.plotSize = {static_cast<float>(plotFrame_.width()),
                      static_cast<float>(plotFrame_.height())};
    block.shiftPixels = static_cast<float>(shiftPixels_);
    block.liveRevealProgress = static_cast<float>(liveRevealProgress_);
    block.minimumStrokeExtent =
        static_cast<float>(std::max(0.0005, 2.0 / std::max(1.0, plotFrame_.width())));
    block.layerFlag = static_cast<std::int32_t>(flag);
    if (flag == TrendLayerFlag::liveReveal && currentSnapshot_) {
        // The reveal span as a fraction of the plot width.
        const double window = currentSnapshot_->viewportDomain.visibleWindowSeconds;
        block.layerParameter =
            window > 0 ? static_cast<float>(currentSnapshot_->liveRevealDurationSeconds / window)
                       : 0.0f;
    }
    return block;
}

void FixedViewportTrendRenderer::uploadGeometry(TrendRootNode& root) const {
    root.grid.upload(gridVertices_);
    root.throttleBands.upload(throttleBandVertices_);
    root.axisTicks.upload(axisTickVertices_);
    root.setSeriesCount(seriesVertices_.size());
    for (std::size_t i = 0; i < seriesVertices_.size(); ++i)
        root.series[i]->upload(seriesVertices_[i]);
    root.geometryGeneration = geometryGeneration_;
}

void FixedViewportTrendRenderer::syncLabels(TrendRootNode& root, QQuickWindow* window) {
    if (labelTextureCacheClearPending_) {
        root.labelNodes(0);
        root.labelTextures.clear();
        labelTextureCacheClearPending_ = false;
    }
    // The label nodes still point at what the last sync evicted; they are all reassigned below,
    // so those textures can go when this sync ends.
    const auto evictedBefore = root.labelTextures.takeEvicted();
    // Textures first, so that a label whose texture cannot be made is left out.
    std::vector<std::pair<const LabelDrawCall*, QSGTexture*>> drawable;
    drawable.reserve(labelDrawCalls_.size());
    for (const auto& call : labelDrawCalls_) {
        QSGTexture* texture = root.labelTextures.find(call.key);
        if (!texture && window) {
            const QImage image = rasterizedLabelImage(call.key.text, appearance_, labelScale_);
            if (!image.isNull())
                if (QSGTexture* made = window->createTextureFromImage(image)) {
                    // Labels move by fractions of a pixel every frame: nearest sampling would
                    // make them shimmer.
                    made->setFiltering(QSGTexture::Linear);
                    made->setHorizontalWrapMode(QSGTexture::ClampToEdge);
                    made->setVerticalWrapMode(QSGTexture::ClampToEdge);
                    texture =
                        root.labelTextures.insert(call.key, std::unique_ptr<QSGTexture>(made));
                }
        }
        // A texture that a later insert of this sync evicts stays alive (see takeEvicted), so
        // every label found or made here is drawn in this frame.
        if (texture) drawable.emplace_back(&call, texture);
    }
    auto& nodes = root.labelNodes(drawable.size());
    const QSizeF drawableSize = window ? QSizeF(window->size()) : QSizeF(1, 1);
    for (std::size_t i = 0; i < drawable.size(); ++i) {
        const auto& [call, texture] = drawable[i];
        QSGGeometryNode* node = nodes[i];
        auto* vertices = static_cast<TextVertex*>(node->geometry()->vertexData());
        std::copy_n(labelVertices_.begin() + call->vertexOffset, call->vertexCount, vertices);
        node->geometry()->markVertexDataDirty();
        auto* material = static_cast<TrendTextMaterial*>(node->material());
        material->texture = texture;
        material->drawableSize = {static_cast<float>(std::max(1.0, drawableSize.width())),
                                  static_cast<float>(std::max(1.0, drawableSize.height()))};
        node->markDirty(QSGNode::DirtyGeometry | QSGNode::DirtyMaterial);
    }
    const auto& order = root.labelTextures.order();
    labelTextureCacheOrder_.assign(order.begin(), order.end());
    root.labelGeneration = labelGeneration_;
}

QSGNode* FixedViewportTrendRenderer::draw(QSGNode* oldRoot, QQuickWindow* window,
                                          const QSizeF& drawableSize, const QRectF& clipRect) {
    if (frameInFlight_) return oldRoot;
    auto* root = static_cast<TrendRootNode*>(oldRoot);
    if (!root) root = new TrendRootNode;
    frameInFlight_ = true;
    if (root->geometryGeneration != geometryGeneration_) uploadGeometry(*root);
    if (root->labelGeneration != labelGeneration_) syncLabels(*root, window);
    root->setClipRect(clipRect);
    root->lineMaterial.uniforms = frameUniforms(TrendLayerFlag::none, drawableSize);
    root->seriesMaterial.uniforms = frameUniforms(TrendLayerFlag::liveReveal, drawableSize);
    root->markMaterialsDirty();
    ++drawnFrameCount_;
    return root;
}

}  // namespace kelvo
