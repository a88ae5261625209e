#include <QApplication>
#include <QFile>
#include <QProcess>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "lumora/ui/desktop/desktop_parts.hpp"
#include "lumora/ui/view_controller.hpp"

#ifdef LUMORA_HAVE_XCB
#include <xcb/xcb.h>
#endif

namespace lumora::ui::desktop {

namespace {

QColor fromRgb(const scrivet::Rgb& c) { return QColor::fromRgbF(float(c.r), float(c.g), float(c.b)); }

DisplayInfo infoOf(const QScreen* s) {
    DisplayInfo d;
    QString serial = s->serialNumber();
    d.key = (serial.isEmpty() ? s->name() : serial).toStdString();
    d.name = (s->model().isEmpty() ? s->name() : s->model()).toStdString();
    d.isMain = s == QGuiApplication::primaryScreen();
    d.size = Size{double(s->geometry().width()), double(s->geometry().height())};
    return d;
}

// A short sound for a finished turn or a session that needs you: the desktop
// sound theme's through PulseAudio's player when both are there, else the
// system bell.
void chime(bool done) {
    static const QString player = "/usr/bin/paplay";
    QString file = QString("/usr/share/sounds/freedesktop/stereo/%1.oga").arg(done ? "complete" : "dialog-warning");
    if (QFile::exists(player) && QFile::exists(file) && QProcess::startDetached(player, {file})) return;
    QApplication::beep();
}

}  // namespace

QColor statusColour(AgentStatus s) { return fromRgb(colour(s)); }
QColor providerColour(HarnessProvider p) { return fromRgb(scrivet::accent(p)); }

Palette paletteFor(const DesktopLook& look, bool translucent) {
    Palette p;
    // The tab: black fuses with a bezel; graphite is a lifted grey; clear is
    // a wash where windows can be see-through, and a dark glass where not.
    if (look.tabStyle == "graphite") p.pill = QColor(58, 58, 64);
    else if (look.tabStyle == "clear") p.pill = translucent ? QColor(20, 20, 24, 150) : QColor(34, 36, 42);
    else p.pill = QColor(0, 0, 0);
    p.pillText = QColor(236, 236, 240);
    // The panel: without a blur, glassy and smoked are washes of different
    // strength over whatever lies beneath (or over a dark base without a
    // compositor); black is solid; paper is light.
    p.text = QColor(236, 236, 240);
    p.muted = QColor(150, 152, 160);
    p.hairline = QColor(255, 255, 255, 36);
    p.rowHover = QColor(255, 255, 255, 14);
    if (look.panelMaterial == "black") {
        p.panel = QColor(0, 0, 0);
    } else if (look.panelMaterial == "paper") {
        p.panel = QColor(246, 244, 239);
        p.text = QColor(28, 28, 32);
        p.muted = QColor(110, 110, 118);
        p.hairline = QColor(0, 0, 0, 40);
        p.rowHover = QColor(0, 0, 0, 12);
        p.lightPanel = true;
    } else if (look.panelMaterial == "glassy") {
        p.panel = translucent ? QColor(36, 38, 46, int(0.48 * 255)) : QColor(44, 46, 54);
    } else {
        p.panel = translucent ? QColor(14, 14, 18, int(0.80 * 255)) : QColor(22, 22, 26);
    }
    return p;
}

bool compositorRuns() {
#ifdef LUMORA_HAVE_XCB
    auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) return false;
    xcb_connection_t* c = x11->connection();
    // A compositing manager owns the _NET_WM_CM_S<screen> selection.
    QByteArray atomName = "_NET_WM_CM_S0";
    auto cookie = xcb_intern_atom(c, 0, uint16_t(atomName.size()), atomName.constData());
    xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(c, cookie, nullptr);
    if (!atom) return false;
    auto ownerCookie = xcb_get_selection_owner(c, atom->atom);
    std::free(atom);
    xcb_get_selection_owner_reply_t* owner = xcb_get_selection_owner_reply(c, ownerCookie, nullptr);
    bool runs = owner && owner->owner != XCB_NONE;
    std::free(owner);
    return runs;
#else
    return QGuiApplication::platformName() == "wayland";
#endif
}

// --- the trace of what is where ------------------------------------------------

namespace Trace {

namespace {

FILE* gFile = nullptr;
std::map<QString, QRect> gShown;
bool gSweepQueued = false;

bool traced(const QString& name) {
    static const char* prefixes[] = {"pill", "panel", "row-", "approve-", "deny-", "session-", "always-",
                                     "option-", "settings", "setting-", "display-", "quota-strip"};
    for (const char* p : prefixes) {
        if (name.startsWith(QLatin1String(p))) return true;
    }
    return false;
}

void write(const QString& name, const QRect& r) {
    std::fprintf(gFile, "%s %d %d %d %d\n", name.toUtf8().constData(), r.x(), r.y(), r.width(), r.height());
    std::fflush(gFile);
}

void sweep() {
    gSweepQueued = false;
    std::map<QString, QRect> now;
    for (QWidget* top : QApplication::topLevelWidgets()) {
        if (!top->isVisible()) continue;
        QList<QWidget*> all = top->findChildren<QWidget*>();
        all.prepend(top);
        for (QWidget* w : all) {
            QString name = w->objectName();
            if (name.isEmpty() || !traced(name) || !w->isVisible()) continue;
            QRect r(w->mapToGlobal(QPoint(0, 0)), w->size());
            // A row scrolled out of the list's viewport is not on screen.
            if (QWidget* clip = w->parentWidget()) {
                for (QWidget* up = clip; up && !up->isWindow(); up = up->parentWidget()) {
                    if (up->objectName() == "viewport") {
                        QRect vp(up->mapToGlobal(QPoint(0, 0)), up->size());
                        r = r.intersected(vp);
                    }
                }
            }
            if (r.isEmpty()) continue;
            now[name] = r;
        }
    }
    for (const auto& [name, r] : now) {
        auto it = gShown.find(name);
        if (it == gShown.end() || it->second != r) write(name, r);
    }
    for (const auto& [name, r] : gShown) {
        if (!now.count(name)) write(name, QRect());
    }
    gShown = std::move(now);
}

class Filter : public QObject {
protected:
    bool eventFilter(QObject* o, QEvent* e) override {
        switch (e->type()) {
            case QEvent::Show: case QEvent::Hide: case QEvent::Move: case QEvent::Resize:
                if (o->isWidgetType()) sweepSoon();
                break;
            default: break;
        }
        return false;
    }
};

}  // namespace

void install() {
    const char* path = std::getenv("LUMORA_UI_TRACE");
    if (!path || !*path || gFile) return;
    gFile = std::fopen(path, "ae");
    if (!gFile) return;
    qApp->installEventFilter(new Filter);
}

void sweepSoon() {
    if (!gFile || gSweepQueued) return;
    gSweepQueued = true;
    QTimer::singleShot(0, qApp, sweep);
}

}  // namespace Trace

// --- the front end's state --------------------------------------------------------

Front::Front(ViewBackend& backend, const DesktopViewOptions& options) : backend_(backend), options_(options) {
    translucent_ = compositorRuns();
    look_ = options_.look ? options_.look() : DesktopLook{};
    palette_ = paletteFor(look_, translucent_);
    peekTimer_.setSingleShot(true);
    QObject::connect(&peekTimer_, &QTimer::timeout, [this] { endPeek(); });
    // Ages move on in minutes; a tick every ten seconds repaints them and
    // drops confirmations that have had their time.
    QObject::connect(&tick_, &QTimer::timeout, [this] { refresh(); });
    tick_.start(std::chrono::duration_cast<std::chrono::milliseconds>(kAgeTick).count());
    backend_.setOnChange([this] { refresh(); });
    auto* app = static_cast<QGuiApplication*>(QGuiApplication::instance());
    QObject::connect(app, &QGuiApplication::screenAdded, [this](QScreen*) { syncScreens(); });
    QObject::connect(app, &QGuiApplication::screenRemoved, [this](QScreen*) {
        QTimer::singleShot(0, [this] { syncScreens(); });
    });
    QObject::connect(app, &QGuiApplication::primaryScreenChanged, [this](QScreen*) { syncScreens(); });
    if (options_.displaysFound) {
        options_.displaysFound(connected());
        look_ = options_.look ? options_.look() : DesktopLook{};
    }
    refresh();
    syncScreens();
    cursor_ = std::make_unique<CursorWatch>([this](QPoint pos, double vx, double vy) {
        for (auto& w : windows_) w->cursorAt(pos, vx, vy);
    });
}

Front::~Front() {
    backend_.setOnChange(nullptr);
    cursor_.reset();
    windows_.clear();
    settings_.reset();
}

std::vector<DisplayInfo> Front::connected() const {
    std::vector<DisplayInfo> out;
    for (QScreen* s : QGuiApplication::screens()) out.push_back(infoOf(s));
    return out;
}

void Front::syncScreens() {
    auto all = connected();
    auto chosen = NotchDisplays::chosen(look_.displays, all);
    std::vector<QScreen*> wanted;
    for (QScreen* s : QGuiApplication::screens()) {
        auto key = infoOf(s).key;
        if (std::any_of(chosen.begin(), chosen.end(), [&](const DisplayInfo& d) { return d.key == key; }))
            wanted.push_back(s);
    }
    std::erase_if(windows_, [&](const std::unique_ptr<PillWindow>& w) {
        return !w->screen() || std::find(wanted.begin(), wanted.end(), w->screen()) == wanted.end();
    });
    for (QScreen* s : wanted) {
        bool has = std::any_of(windows_.begin(), windows_.end(), [&](const auto& w) { return w->screen() == s; });
        if (!has) windows_.push_back(std::make_unique<PillWindow>(*this, s));
    }
    if (settings_) settings_->sync();
}

void Front::refresh() {
    // The look follows the stored settings, whoever changed them.
    DesktopLook look = options_.look ? options_.look() : DesktopLook{};
    if (look != look_) {
        bool displays = look.displays != look_.displays;
        look_ = std::move(look);
        palette_ = paletteFor(look_, translucent_);
        if (displays) QTimer::singleShot(0, [this] { syncScreens(); });
    }
    Date now = std::chrono::system_clock::now();
    model_ = ViewModel::read(backend_, options_.settings ? options_.settings() : ViewSettings{}, now);
    ViewNav::expire(state_, now);
    if (openPanels_ > 0 && !state_.frozen) {
        state_.frozen = AgentDisplay::freeze(model_.instances, model_.settings.idlePolicy, model_.unseen, now);
    }
    if (model_.peek) {
        // A peek that was there before the pill opened is old news.
        if (lastPeekToken_ >= 0 && model_.peek->token != lastPeekToken_) {
            peek_ = model_.peek;
            peekTimer_.start(std::chrono::duration_cast<std::chrono::milliseconds>(kPeekShown).count());
            if (model_.settings.soundEnabled && model_.peek->chimes) chime(model_.peek->done);
        }
        lastPeekToken_ = model_.peek->token;
    } else if (lastPeekToken_ < 0) {
        lastPeekToken_ = 0;
    }
    for (auto& w : windows_) w->refresh();
}

void Front::endPeek() {
    peek_.reset();
    for (auto& w : windows_) w->refresh();
}

void Front::settingsChanged() {
    refresh();
    for (auto& w : windows_) w->update();
}

std::vector<AgentInstance> Front::rows() const { return ViewNav::rows(model_, state_); }

std::optional<std::string> Front::confirmation(const std::string& id) const {
    auto it = state_.confirmations.find(id);
    if (it == state_.confirmations.end()) return std::nullopt;
    return it->second.text;
}

const std::vector<ApprovalChoice>& Front::choices(const std::string& id) const {
    static const std::vector<ApprovalChoice> none;
    auto it = model_.choices.find(id);
    return it == model_.choices.end() ? none : it->second;
}

void Front::choose(const std::string& id, ApprovalChoice::Kind kind) {
    auto it = std::find_if(model_.instances.begin(), model_.instances.end(),
                           [&](const AgentInstance& a) { return a.id == id; });
    if (it == model_.instances.end() || !it->approval) return;
    ApprovalRequest request = *it->approval;
    auto confirmation = backend_.choose(request, kind);
    bool deny = kind == ApprovalChoice::Kind::deny;
    std::string text = confirmation ? *confirmation : deny ? "Denied" : "Approved";
    state_.confirmations[id] = Confirmation{text, std::chrono::system_clock::now() + kConfirmationShown};
    backend_.sawRow(id);
    refresh();
}

void Front::open(const std::string& id) {
    auto it = std::find_if(model_.instances.begin(), model_.instances.end(),
                           [&](const AgentInstance& a) { return a.id == id; });
    if (it == model_.instances.end()) return;
    backend_.sawRow(id);
    // Where it landed (or why it could not) is in the log; the window coming forward is the answer.
    backend_.jump(*it, [](std::vector<std::string>) {});
}

void Front::panelOpened() {
    if (openPanels_++ == 0) {
        Date now = std::chrono::system_clock::now();
        state_.frozen = AgentDisplay::freeze(model_.instances, model_.settings.idlePolicy, model_.unseen, now);
        state_.frozenUntil = now + std::chrono::hours(24 * 365);
        // Opening the panel is looking at it: needs-you rows are acknowledged
        // and finished turns seen.
        for (const auto& a : rows()) {
            bool worthTelling = (a.status == AgentStatus::attention && !model_.acknowledged.count(a.id)) ||
                                model_.unseen.count(a.id);
            if (worthTelling) backend_.sawRow(a.id);
        }
        if (peek_) {
            peekTimer_.stop();
            peek_.reset();
        }
    }
}

void Front::panelClosed(bool redraw) {
    if (openPanels_ > 0 && --openPanels_ == 0) {
        state_.frozen.reset();
        if (redraw) refresh();
    }
}

void Front::showSettings() {
    if (!settings_) settings_ = std::make_unique<SettingsWindow>(*this);
    settings_->sync();
    settings_->show();
    settings_->raise();
}

}  // namespace lumora::ui::desktop
