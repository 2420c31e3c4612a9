// Geometry storage that is reused across snapshots: it grows by doubling from 4096 bytes and
// only shrinks to nothing. The scene graph uploads from this storage; keeping its size stable
// keeps the GPU-side buffer stable too.
#pragma once

#include <QSGGeometry>
#include <QSGGeometryNode>
#include <span>

#include "trend_render/TrendVertex.h"

namespace kelvo {

inline constexpr int kMinimumVertexBufferBytes = 4096;

// The capacity in bytes that holds `vertexCount` vertices of `stride` bytes, reusing
// `existingCapacity` when it is enough; 0 for no vertices.
int reusableBufferCapacity(int vertexCount, int existingCapacity,
                           int stride = static_cast<int>(sizeof(Vertex)));

// One layer: a geometry node whose vertex storage follows the rule above. Vertices past the
// layer's count are parked off-screen as degenerate primitives, so they draw nothing.
class ReusableVertexBuffer {
public:
    ReusableVertexBuffer(QSGGeometry::DrawingMode mode, QSGMaterial* sharedMaterial);
    ReusableVertexBuffer(const ReusableVertexBuffer&) = delete;
    ReusableVertexBuffer& operator=(const ReusableVertexBuffer&) = delete;

    void upload(std::span<const Vertex> vertices);

    QSGGeometryNode* node() const { return node_; }  // owned by the scene graph tree
    int capacityBytes() const { return capacityBytes_; }
    int vertexCount() const { return vertexCount_; }

    static const QSGGeometry::AttributeSet& attributes();

private:
    QSGGeometryNode* node_;
    int capacityBytes_ = 0;
    int vertexCount_ = 0;
};

}  // namespace kelvo
