// The renderer's vertex and uniform layouts. They are shared byte for byte with the shaders in
// shaders/, so their sizes are checked at compile time.
#pragma once

#include <array>
#include <cstdint>

namespace kelvo {

// x and y in plot fractions (0,0 = the plot's top left, 1,1 = its bottom right); z = 1 when the
// vertex scrolls with the content, 0 when it stays put; w = 0.
struct Vertex {
    std::array<float, 4> positionAndShift{};
    std::array<float, 4> color{};  // straight (not premultiplied) RGBA
};
static_assert(sizeof(Vertex) == 32);

// A label sprite corner in view points; colour is white with the sprite's opacity as alpha.
struct TextVertex {
    std::array<float, 2> position{};
    std::array<float, 2> textureCoordinate{};
    std::array<float, 4> color{};
};
static_assert(sizeof(TextVertex) == 32);

// Per-layer meaning of `layerFlag`.
enum class TrendLayerFlag : std::int32_t {
    none = 0,
    // Series: the newest stretch beyond the content's right edge is revealed with
    // liveRevealProgress; `layerParameter` is the reveal span as a fraction of the plot width.
    liveReveal = 1,
};

// What moves a frame: everything per-frame lives here, never in the geometry.
struct TrendUniformBlock {
    std::array<float, 2> drawableSize{1, 1};  // points, each at least 1
    std::array<float, 2> plotOrigin{};
    std::array<float, 2> plotSize{};
    float shiftPixels = 0;
    float liveRevealProgress = 1;
    float layerParameter = 0;
    float minimumStrokeExtent = 0;
    std::int32_t layerFlag = 0;
    std::int32_t padding = 0;
};
static_assert(sizeof(TrendUniformBlock) == 48);

// The scene graph's own uniforms (qt_Matrix, qt_Opacity) come first; ours follow at this offset
// (std140: a vec2 after the float at 64 aligns to 72).
inline constexpr int kTrendUniformBlockOffset = 72;
inline constexpr int kTrendUniformBufferSize = kTrendUniformBlockOffset + 48;

}  // namespace kelvo
