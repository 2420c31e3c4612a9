#version 440
// Lines, bands and series: plot fractions to points, with the scroll applied here so that the
// geometry never changes between snapshots.

layout(location = 0) in vec4 positionAndShift;
layout(location = 1) in vec4 color;

layout(location = 0) out vec4 vColor;
layout(location = 1) out float vContentX;

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

void main()
{
    vec2 points = plotOrigin + vec2(positionAndShift.x * plotSize.x - positionAndShift.z * shiftPixels,
                                    positionAndShift.y * plotSize.y);
    vColor = color;
    vContentX = positionAndShift.x;
    gl_Position = qt_Matrix * vec4(points, 0.0, 1.0);
}
