#version 440
// The label texture is premultiplied, so scaling it by the sprite's opacity fades it evenly.

layout(location = 0) in vec2 vTextureCoordinate;
layout(location = 1) in vec4 vColor;

layout(location = 0) out vec4 fragColor;

layout(std140, binding = 0) uniform buf {
    mat4 qt_Matrix;
    float qt_Opacity;
    vec2 drawableSize;
};

layout(binding = 1) uniform sampler2D labelTexture;

void main()
{
    fragColor = texture(labelTexture, vTextureCoordinate) * vColor.a * qt_Opacity;
}
