// Plain application windows for the desktop tests.
//   cover_window              a window mapped after the pill that covers the
//                             whole screen in one flat colour unless the pill
//                             stays above it
//   cover_window --top-bar N  a desktop's top bar: a dock N pixels tall that
//                             reserves the top of the screen
#include <QApplication>
#include <QScreen>
#include <QWidget>
#include <xcb/xcb.h>

#include <cstring>
#include <string>

namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    auto reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr);
    xcb_atom_t a = reply ? reply->atom : XCB_NONE;
    free(reply);
    return a;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QWidget w;
    w.setWindowTitle("cover");
    QPalette p = w.palette();
    p.setColor(QPalette::Window, QColor(0x5a, 0x6b, 0x7c));
    w.setPalette(p);
    w.setAutoFillBackground(true);
    QRect screen = QApplication::primaryScreen()->geometry();
    if (argc > 2 && std::string(argv[1]) == "--top-bar") {
        int height = std::stoi(argv[2]);
        w.setWindowTitle("top bar");
        w.setWindowFlags(Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus);
        w.setAttribute(Qt::WA_X11NetWmWindowTypeDock);
        p.setColor(QPalette::Window, QColor(0x30, 0x30, 0x38));
        w.setPalette(p);
        w.setGeometry(screen.x(), screen.y(), screen.width(), height);
        w.winId();
        auto* x11 = app.nativeInterface<QNativeInterface::QX11Application>();
        xcb_connection_t* c = x11->connection();
        auto window = xcb_window_t(w.winId());
        uint32_t strut[12] = {0, 0, uint32_t(height), 0, 0, 0, 0, 0, 0, uint32_t(screen.width() - 1), 0, 0};
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom(c, "_NET_WM_STRUT_PARTIAL"), XCB_ATOM_CARDINAL, 32,
                            12, strut);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom(c, "_NET_WM_STRUT"), XCB_ATOM_CARDINAL, 32, 4,
                            strut);
        xcb_flush(c);
        w.show();
    } else {
        w.setGeometry(screen);
        w.show();
        w.raise();
        w.activateWindow();
    }
    return app.exec();
}
