#include "trend_render/ReusableVertexBuffer.h"

#include <algorithm>
#include <cstring>

namespace kelvo {

namespace {
// Far outside any plot and with no area or length: the rasteriser produces nothing for it.
constexpr Vertex kParkedVertex{{-8.0f, -8.0f, 0.0f, 0.0f}, {0, 0, 0, 0}};
}  // namespace

int reusableBufferCapacity(int vertexCount, int existingCapacity, int stride) {
    if (vertexCount <= 0) return 0;
    const int required = vertexCount * stride;
    if (existingCapacity >= required) return existingCapacity;
    return std::max({2 * existingCapacity, required, kMinimumVertexBufferBytes});
}

const QSGGeometry::AttributeSet& ReusableVertexBuffer::attributes() {
    static const QSGGeometry::Attribute attributes[] = {
        QSGGeometry::Attribute::createWithAttributeType(0, 4, QSGGeometry::FloatType,
                                                        QSGGeometry::PositionAttribute),
        QSGGeometry::Attribute::createWithAttributeType(1, 4, QSGGeometry::FloatType,
                                                        QSGGeometry::ColorAttribute),
    };
    static const QSGGeometry::AttributeSet set{2, static_cast<int>(sizeof(Vertex)), attributes};
    return set;
}

ReusableVertexBuffer::ReusableVertexBuffer(QSGGeometry::DrawingMode mode,
                                           QSGMaterial* sharedMaterial)
    : node_(new QSGGeometryNode) {
    auto* geometry = new QSGGeometry(attributes(), 0);
    geometry->setDrawingMode(mode);
    geometry->setLineWidth(1);
    geometry->setVertexDataPattern(QSGGeometry::StaticPattern);
    node_->setGeometry(geometry);
    node_->setFlag(QSGNode::OwnsGeometry);
    node_->setMaterial(sharedMaterial);
}

void ReusableVertexBuffer::upload(std::span<const Vertex> vertices) {
    const int count = static_cast<int>(vertices.size());
    const int capacity = reusableBufferCapacity(count, capacityBytes_);
    QSGGeometry* geometry = node_->geometry();
    if (capacity != capacityBytes_) {
        geometry->allocate(capacity / static_cast<int>(sizeof(Vertex)));
        capacityBytes_ = capacity;
    }
    auto* data = static_cast<Vertex*>(geometry->vertexData());
    if (count > 0) std::memcpy(data, vertices.data(), vertices.size_bytes());
    std::fill(data + count, data + geometry->vertexCount(), kParkedVertex);
    vertexCount_ = count;
    geometry->markVertexDataDirty();
    node_->markDirty(QSGNode::DirtyGeometry);
}

}  // namespace kelvo
