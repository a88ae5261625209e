// A plain application window for the desktop tests: mapped after the pill,
// it covers the whole screen in one flat colour unless the pill stays above it.
#include <QApplication>
#include <QScreen>
#include <QWidget>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QWidget w;
    w.setWindowTitle("cover");
    w.setStyleSheet("background: #5a6b7c;");
    w.setAutoFillBackground(true);
    QPalette p = w.palette();
    p.setColor(QPalette::Window, QColor(0x5a, 0x6b, 0x7c));
    w.setPalette(p);
    w.setGeometry(QApplication::primaryScreen()->geometry());
    w.show();
    w.raise();
    w.activateWindow();
    return app.exec();
}
