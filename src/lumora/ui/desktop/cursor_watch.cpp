#include <QAbstractNativeEventFilter>
#include <QCursor>
#include <QDateTime>
#include <QGuiApplication>

#include "lumora/ui/desktop/desktop_parts.hpp"

#ifdef LUMORA_HAVE_XINPUT
#include <xcb/xcb.h>
#include <xcb/xinput.h>
#endif

namespace lumora::ui::desktop {

namespace {

constexpr int kSampleMs = 16;    // at most one look at the cursor per frame while it moves
constexpr int kSettleMs = 80;    // a cursor that sent nothing for this long has stopped

#ifdef LUMORA_HAVE_XINPUT
// Raw motion on the root window arrives for every movement of a pointing
// device, wherever the cursor is, and only when it moves: an idle desktop
// sends nothing. (A warped pointer sends none; the windows' own enter and
// motion events still see it arrive.)
class RawMotionFilter : public QAbstractNativeEventFilter {
public:
    RawMotionFilter(uint8_t opcode, std::function<void()> moved) : opcode_(opcode), moved_(std::move(moved)) {}
    bool nativeEventFilter(const QByteArray& type, void* message, qintptr*) override {
        if (type != "xcb_generic_event_t") return false;
        auto* ev = static_cast<xcb_generic_event_t*>(message);
        if ((ev->response_type & 0x7f) != XCB_GE_GENERIC) return false;
        auto* ge = reinterpret_cast<xcb_ge_generic_event_t*>(ev);
        if (ge->extension == opcode_ && ge->event_type == XCB_INPUT_RAW_MOTION) moved_();
        return false;
    }

private:
    uint8_t opcode_;
    std::function<void()> moved_;
};
#endif

}  // namespace

CursorWatch::CursorWatch(Listener listener) : listener_(std::move(listener)) {
    sample_.setSingleShot(true);
    QObject::connect(&sample_, &QTimer::timeout, [this] { look(); });
    settle_.setSingleShot(true);
    QObject::connect(&settle_, &QTimer::timeout, [this] {
        lastAt_ = QDateTime::currentMSecsSinceEpoch();
        if (listener_) listener_(QCursor::pos(), 0, 0);
    });
#ifdef LUMORA_HAVE_XINPUT
    auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) return;
    xcb_connection_t* c = x11->connection();
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c, &xcb_input_id);
    if (!ext || !ext->present) return;
    auto version = xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), nullptr);
    bool ok = version && version->major_version >= 2;
    std::free(version);
    if (!ok) return;
    struct {
        xcb_input_event_mask_t head;
        uint32_t mask;
    } mask{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, XCB_INPUT_XI_EVENT_MASK_RAW_MOTION};
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    xcb_input_xi_select_events(c, screen->root, 1, &mask.head);
    xcb_flush(c);
    filter_ = std::make_unique<RawMotionFilter>(ext->major_opcode, [this] { moved(); });
    qApp->installNativeEventFilter(filter_.get());
    active_ = true;
#endif
}

CursorWatch::~CursorWatch() {
    if (filter_) qApp->removeNativeEventFilter(filter_.get());
}

void CursorWatch::moved() {
    if (!sample_.isActive()) sample_.start(kSampleMs);
    settle_.start(kSettleMs);
}

void CursorWatch::look() {
    qint64 now = QDateTime::currentMSecsSinceEpoch();
    QPoint pos = QCursor::pos();
    double dt = std::max<qint64>(1, now - lastAt_) / 1000.0;
    double vx = lastAt_ ? (pos.x() - last_.x()) / dt : 0, vy = lastAt_ ? (pos.y() - last_.y()) / dt : 0;
    last_ = pos;
    lastAt_ = now;
    if (listener_) listener_(pos, vx, vy);
}

}  // namespace lumora::ui::desktop
