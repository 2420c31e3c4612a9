#include "trend_render/TrendMaterials.h"

#include <cstring>

namespace kelvo {

namespace {

class TrendLineShader : public QSGMaterialShader {
public:
    TrendLineShader() {
        setShaderFileName(VertexStage, QStringLiteral(":/kelvo/trend_render/trend.vert.qsb"));
        setShaderFileName(FragmentStage, QStringLiteral(":/kelvo/trend_render/trend.frag.qsb"));
    }
    bool updateUniformData(RenderState& state, QSGMaterial* newMaterial, QSGMaterial*) override {
        QByteArray* buffer = state.uniformData();
        Q_ASSERT(buffer->size() >= kTrendUniformBufferSize);
        if (state.isMatrixDirty())
            std::memcpy(buffer->data(), state.combinedMatrix().constData(), 64);
        if (state.isOpacityDirty()) {
            const float opacity = state.opacity();
            std::memcpy(buffer->data() + 64, &opacity, 4);
        }
        const auto& uniforms = static_cast<TrendLineMaterial*>(newMaterial)->uniforms;
        std::memcpy(buffer->data() + kTrendUniformBlockOffset, &uniforms, sizeof uniforms);
        return true;
    }
};

class TrendTextShader : public QSGMaterialShader {
public:
    TrendTextShader() {
        setShaderFileName(VertexStage, QStringLiteral(":/kelvo/trend_render/trend_text.vert.qsb"));
        setShaderFileName(FragmentStage,
                          QStringLiteral(":/kelvo/trend_render/trend_text.frag.qsb"));
    }
    bool updateUniformData(RenderState& state, QSGMaterial* newMaterial, QSGMaterial*) override {
        QByteArray* buffer = state.uniformData();
        if (state.isMatrixDirty())
            std::memcpy(buffer->data(), state.combinedMatrix().constData(), 64);
        if (state.isOpacityDirty()) {
            const float opacity = state.opacity();
            std::memcpy(buffer->data() + 64, &opacity, 4);
        }
        const auto& size = static_cast<TrendTextMaterial*>(newMaterial)->drawableSize;
        std::memcpy(buffer->data() + kTrendUniformBlockOffset, size.data(), 8);
        return true;
    }
    void updateSampledImage(RenderState& state, int binding, QSGTexture** texture,
                            QSGMaterial* newMaterial, QSGMaterial*) override {
        if (binding != 1) return;
        QSGTexture* t = static_cast<TrendTextMaterial*>(newMaterial)->texture;
        if (t) t->commitTextureOperations(state.rhi(), state.resourceUpdateBatch());
        *texture = t;
    }
};

}  // namespace

TrendLineMaterial::TrendLineMaterial() {
    // Vertices are in plot fractions, so batching them with others (which transforms positions
    // on the CPU) would be wrong; blending is needed for the translucent bands and grid.
    setFlag(Blending | RequiresFullMatrix);
}

QSGMaterialType* TrendLineMaterial::type() const {
    static QSGMaterialType type;
    return &type;
}

QSGMaterialShader* TrendLineMaterial::createShader(QSGRendererInterface::RenderMode) const {
    return new TrendLineShader;
}

int TrendLineMaterial::compare(const QSGMaterial* other) const {
    const auto* o = static_cast<const TrendLineMaterial*>(other);
    return std::memcmp(&uniforms, &o->uniforms, sizeof uniforms);
}

TrendTextMaterial::TrendTextMaterial() {
    setFlag(Blending | RequiresFullMatrix);
}

QSGMaterialType* TrendTextMaterial::type() const {
    static QSGMaterialType type;
    return &type;
}

QSGMaterialShader* TrendTextMaterial::createShader(QSGRendererInterface::RenderMode) const {
    return new TrendTextShader;
}

int TrendTextMaterial::compare(const QSGMaterial* other) const {
    const auto* o = static_cast<const TrendTextMaterial*>(other);
    if (texture == o->texture) return 0;
    return texture < o->texture ? -1 : 1;
}

}  // namespace kelvo
