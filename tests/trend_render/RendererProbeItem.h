// An item that shows a FixedViewportTrendRenderer as it is, with no host animation around it,
// so pixel tests can set the shift and reveal themselves.
#pragma once

#include <QQuickItem>
#include <QQuickWindow>

#include "trend_render/FixedViewportTrendRenderer.h"

namespace kelvo::test {

class RendererProbeItem : public QQuickItem {
public:
    explicit RendererProbeItem(QQuickItem* parent) : QQuickItem(parent) {
        setFlag(ItemHasContents);
    }
    void attach(QQuickWindow* window) {
        QObject::connect(window, &QQuickWindow::frameSwapped, this,
                         [this] { renderer.frameCompleted(); });
    }
    QRectF clip;
    FixedViewportTrendRenderer renderer;

protected:
    QSGNode* updatePaintNode(QSGNode* old, UpdatePaintNodeData*) override {
        return renderer.draw(old, window(), size(), clip.isEmpty() ? boundingRect() : clip);
    }
};

}  // namespace kelvo::test
