#version 440
// Premultiplies the vertex colour. Series layers also carry the live reveal: content beyond
// the reveal cut is not drawn, and while the reveal runs the line's head is feathered so the
// newest stretch grows in smoothly rather than popping in.

layout(location = 0) in vec4 vColor;
layout(location = 1) in float vContentX;

layout(location = 0) out vec4 fragColor;

layout(std140, binding = 0) uniform buf {
    mat4 qt_Matrix;
    float qt_Opacity;
    vec2 drawableSize;
    vec2 plotOrigin;
    vec2 plotSize;
    float shiftPixels;
    float liveRevealProgress;
    float layerParameter;
    float minimumStrokeExtent;
    int layerFlag;
    float padding;
};

const float kHeadFeatherPoints = 8.0;

void main()
{
    float coverage = 1.0;
    if (layerFlag == 1) {
        float progress = clamp(liveRevealProgress, 0.0, 1.0);
        float cut = 1.0 + progress * layerParameter;
        float behindCutPoints = (cut - vContentX) * plotSize.x;
        if (behindCutPoints < 0.0)
            discard;
        float feather = kHeadFeatherPoints * (1.0 - progress);
        if (feather > 0.0)
            coverage = clamp(behindCutPoints / feather, 0.0, 1.0);
    }
    float alpha = vColor.a * coverage * qt_Opacity;
    fragColor = vec4(vColor.rgb * alpha, alpha);
}
