#include "trend_render/TrendRootNode.h"

namespace kelvo {

TrendRootNode::TrendRootNode() : clip_(new QSGClipNode), labels_(new QSGNode) {
    auto* clipGeometry = new QSGGeometry(QSGGeometry::defaultAttributes_Point2D(), 4);
    clip_->setGeometry(clipGeometry);
    clip_->setFlag(QSGNode::OwnsGeometry);
    clip_->setIsRectangular(true);
    // The grid is clipped too: its dashed tick lines scroll and must not leave the plot.
    appendChildNode(clip_);
    clip_->appendChildNode(grid.node());
    clip_->appendChildNode(throttleBands.node());
    clip_->appendChildNode(axisTicks.node());
    appendChildNode(labels_);
    seriesMaterial.uniforms.layerFlag = static_cast<std::int32_t>(TrendLayerFlag::liveReveal);
}

TrendRootNode::~TrendRootNode() {
    // Children go first (they hold non-owning pointers to the materials and textures).
    removeAllChildNodes();
    delete clip_;  // deletes the grid, bands, ticks and series nodes with it
    delete labels_;
}

void TrendRootNode::setSeriesCount(std::size_t count) {
    while (series.size() > count) {
        QSGGeometryNode* node = series.back()->node();
        clip_->removeChildNode(node);
        delete node;
        series.pop_back();
    }
    while (series.size() < count) {
        series.push_back(
            std::make_unique<ReusableVertexBuffer>(QSGGeometry::DrawTriangles, &seriesMaterial));
        clip_->appendChildNode(series.back()->node());
    }
}

void TrendRootNode::setClipRect(const QRectF& rect) {
    if (clip_->clipRect() == rect) return;
    clip_->setClipRect(rect);
    QSGGeometry::updateRectGeometry(clip_->geometry(), rect);
    clip_->markDirty(QSGNode::DirtyGeometry);
}

const QSGGeometry::AttributeSet& TrendRootNode::textAttributes() {
    static const QSGGeometry::Attribute attributes[] = {
        QSGGeometry::Attribute::createWithAttributeType(0, 2, QSGGeometry::FloatType,
                                                        QSGGeometry::PositionAttribute),
        QSGGeometry::Attribute::createWithAttributeType(1, 2, QSGGeometry::FloatType,
                                                        QSGGeometry::TexCoordAttribute),
        QSGGeometry::Attribute::createWithAttributeType(2, 4, QSGGeometry::FloatType,
                                                        QSGGeometry::ColorAttribute),
    };
    static const QSGGeometry::AttributeSet set{3, static_cast<int>(sizeof(TextVertex)), attributes};
    return set;
}

std::vector<QSGGeometryNode*>& TrendRootNode::labelNodes(std::size_t count) {
    while (labelNodes_.size() > count) {
        labels_->removeChildNode(labelNodes_.back());
        delete labelNodes_.back();
        labelNodes_.pop_back();
    }
    while (labelNodes_.size() < count) {
        auto* node = new QSGGeometryNode;
        auto* geometry = new QSGGeometry(textAttributes(), 6);
        geometry->setDrawingMode(QSGGeometry::DrawTriangles);
        node->setGeometry(geometry);
        node->setMaterial(new TrendTextMaterial);
        node->setFlags(QSGNode::OwnsGeometry | QSGNode::OwnsMaterial);
        labels_->appendChildNode(node);
        labelNodes_.push_back(node);
    }
    return labelNodes_;
}

void TrendRootNode::markMaterialsDirty() {
    grid.node()->markDirty(QSGNode::DirtyMaterial);
    throttleBands.node()->markDirty(QSGNode::DirtyMaterial);
    axisTicks.node()->markDirty(QSGNode::DirtyMaterial);
    for (const auto& layer : series) layer->node()->markDirty(QSGNode::DirtyMaterial);
}

}  // namespace kelvo
