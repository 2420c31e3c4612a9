// Scene-graph materials for the chart: one for lines, bands and series (the per-frame uniform
// block), one for label sprites (a texture scaled by the sprite's opacity).
#pragma once

#include <QSGMaterial>
#include <QSGMaterialShader>
#include <QSGTexture>

#include "trend_render/TrendVertex.h"

namespace kelvo {

class TrendLineMaterial : public QSGMaterial {
public:
    TrendLineMaterial();
    QSGMaterialType* type() const override;
    QSGMaterialShader* createShader(QSGRendererInterface::RenderMode) const override;
    int compare(const QSGMaterial* other) const override;

    // Written on every frame; the shader copies it into the uniform buffer.
    TrendUniformBlock uniforms;
};

class TrendTextMaterial : public QSGMaterial {
public:
    TrendTextMaterial();
    QSGMaterialType* type() const override;
    QSGMaterialShader* createShader(QSGRendererInterface::RenderMode) const override;
    int compare(const QSGMaterial* other) const override;

    QSGTexture* texture = nullptr;  // not owned: the label texture cache owns it
    std::array<float, 2> drawableSize{1, 1};
};

}  // namespace kelvo
