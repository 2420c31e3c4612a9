#version 440
// Label sprites: positions are already in view points.

layout(location = 0) in vec2 position;
layout(location = 1) in vec2 textureCoordinate;
layout(location = 2) in vec4 color;

layout(location = 0) out vec2 vTextureCoordinate;
layout(location = 1) out vec4 vColor;

layout(std140, binding = 0) uniform buf {
    mat4 qt_Matrix;
    float qt_Opacity;
    vec2 drawableSize;
};

void main()
{
    vTextureCoordinate = textureCoordinate;
    vColor = color;
    gl_Position = qt_Matrix * vec4(position, 0.0, 1.0);
}
