// The chart's scene-graph subtree, owned by the scene graph and touched only while the scene is
// synchronised: the layer buffers, the plot clip, the label nodes and the label textures.
#pragma once

#include <QSGClipNode>
#include <QSGGeometryNode>
#include <QSGNode>
#include <QSGTexture>
#include <cstdint>
#include <memory>
#include <vector>

#include "trend_render/LabelTextureCache.h"
#include "trend_render/ReusableVertexBuffer.h"
#include "trend_render/TrendMaterials.h"

namespace kelvo {

class TrendRootNode : public QSGNode {
public:
    TrendRootNode();
    ~TrendRootNode() override;

    // Drawing order, inside the plot clip: grid, bands, ticks, series in order; then labels.
    void setSeriesCount(std::size_t count);
    void setClipRect(const QRectF& rect);
    // Makes `count` label nodes exist (reusing the ones there are) and returns them.
    std::vector<QSGGeometryNode*>& labelNodes(std::size_t count);
    void markMaterialsDirty();

    TrendLineMaterial lineMaterial;
    TrendLineMaterial seriesMaterial;
    ReusableVertexBuffer grid{QSGGeometry::DrawLines, &lineMaterial};
    ReusableVertexBuffer throttleBands{QSGGeometry::DrawTriangles, &lineMaterial};
    ReusableVertexBuffer axisTicks{QSGGeometry::DrawLines, &lineMaterial};
    std::vector<std::unique_ptr<ReusableVertexBuffer>> series;
    LabelTextureCache<QSGTexture> labelTextures;

    std::uint64_t geometryGeneration = 0;
    std::uint64_t labelGeneration = 0;

    static const QSGGeometry::AttributeSet& textAttributes();

private:
    QSGClipNode* clip_;
    QSGNode* labels_;
    std::vector<QSGGeometryNode*> labelNodes_;
};

}  // namespace kelvo
