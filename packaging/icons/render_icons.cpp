// Draws Kelvo's icon (the same picture as kelvo.svg) at every shipped PNG size. Run it after
// changing the picture: kelvo-icon-render packaging/icons
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <cstdio>

namespace {
QPainterPath blade() {
    QPainterPath path(QPointF(128, 128));
    path.cubicTo(110, 96, 112, 58, 140, 46);
    path.cubicTo(160, 40, 170, 62, 156, 82);
    path.cubicTo(148, 94, 138, 108, 128, 128);
    path.closeSubpath();
    return path;
}

QImage draw(int size) {
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 256.0, size / 256.0);
    QLinearGradient background(0, 0, 256, 256);
    background.setColorAt(0, QColor(0x24, 0x84, 0xf0));
    background.setColorAt(1, QColor(0x2c, 0xba, 0xd6));
    p.setPen(Qt::NoPen);
    p.setBrush(background);
    p.drawRoundedRect(QRectF(8, 8, 240, 240), 52, 52);
    QColor ring(Qt::white);
    ring.setAlphaF(0.35);
    p.setPen(QPen(ring, 10));
    p.setBrush(Qt::NoBrush);
    p.drawEllipse(QPointF(128, 128), 92, 92);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    for (int angle : {0, 120, 240}) {
        p.save();
        p.translate(128, 128);
        p.rotate(angle);
        p.translate(-128, -128);
        p.drawPath(blade());
        p.restore();
    }
    p.setPen(QPen(Qt::white, 6));
    p.setBrush(QColor(0xf4, 0x86, 0x28));
    p.drawEllipse(QPointF(128, 128), 18, 18);
    return image;
}
}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    const QDir out(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("."));
    for (int size : {16, 18, 24, 32, 48, 64, 128, 256}) {
        const QString path = out.filePath(QStringLiteral("kelvo-%1.png").arg(size));
        if (!draw(size).save(path)) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
    }
    return 0;
}
