#pragma once

// The desktop front end's pieces (Qt 6 Widgets). Only the desktop's own .cpp
// files include this; the rest of the program sees desktop_view.hpp.

#include <QColor>
#include <QPointer>
#include <QScreen>
#include <QTimer>
#include <QWidget>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumora/ui/desktop/desktop_view.hpp"
#include "lumora/ui/frame.hpp"

class QLabel;
class QPushButton;

class QScrollArea;
class QVBoxLayout;

namespace lumora::ui::desktop {

class Front;
class QuotaStrip;

// The colours one look draws with.
struct Palette {
    QColor pill;       // the collapsed pill's fill
    QColor pillText;
    QColor panel;      // the open panel's fill
    QColor text;
    QColor muted;
    QColor hairline;   // separators and the resting lip
    QColor rowHover;
    bool lightPanel = false;
};
Palette paletteFor(const DesktopLook& look, bool translucent);
QColor statusColour(AgentStatus s);
QColor providerColour(HarnessProvider p);

// Appends `<objectName> <x> <y> <width> <height>` (global coordinates) to the
// file named by LUMORA_UI_TRACE whenever a named window or interactive widget
// is shown, moves, resizes or goes away (then with a zero rectangle).
namespace Trace {
void install();
void sweepSoon();
}  // namespace Trace

// Follows the cursor over the whole screen without polling: the X server's
// raw motion events say when it moves, and it is looked at no more than once
// a frame while it does. Where the platform has no such events, it reports
// nothing and the windows' own enter and motion events do the work.
class CursorWatch {
public:
    // `listener` gets the position and the velocity in pixels per second.
    using Listener = std::function<void(QPoint, double vx, double vy)>;
    explicit CursorWatch(Listener listener);
    ~CursorWatch();
    bool active() const { return active_; }

private:
    void moved();
    void look();

    Listener listener_;
    QTimer sample_, settle_;
    QPoint last_;
    qint64 lastAt_ = 0;
    bool active_ = false;
    std::unique_ptr<class QAbstractNativeEventFilter> filter_;
};

// One session's row in the panel: painted text, and buttons for a held
// approval or a question's options.
class RowWidget : public QWidget {
public:
    RowWidget(Front& front, const AgentInstance& instance, QWidget* parent);
    // Updates what the row shows.
    void setInstance(const AgentInstance& instance);
    // The row's height at `width`.
    int heightFor(int width);
    const std::string& id() const { return id_; }

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void mouseReleaseEvent(QMouseEvent*) override;

private:
    // Lays the row out at `width` (the text blocks, and the buttons when
    // `move`); returns its height.
    int place(int width, bool move);
    void rebuildButtons();
    void describe();
    bool compact() const;
    // The session's task plan when the row shows one.
    const TaskPlan* plan() const;

    Front& front_;
    AgentInstance a_;
    std::string id_;
    std::vector<QPushButton*> buttons_;
    std::string buttonsFor_;  // what the buttons were built for, to rebuild only on change
    // Where place() put the blocks.
    QRect command_, reason_, question_, confirm_;
    int buttonsTop_ = 0;
};

// One display's window: the pill, the peek, and the panel it grows into.
class PillWindow : public QWidget {
public:
    PillWindow(Front& front, QScreen* screen);
    ~PillWindow() override;

    QScreen* screen() const { return screen_; }
    NotchState::Phase phase() const { return phase_; }
    // Everything to draw changed: the rows, the tab, the look.
    void refresh();
    void collapse();
    void open();
    // The cursor moved somewhere on the screen (`v` in pixels per second).
    void cursorAt(QPoint pos, double vx, double vy);

protected:
    void paintEvent(QPaintEvent*) override;
    void enterEvent(QEnterEvent*) override;
    void leaveEvent(QEvent*) override;
    void mouseMoveEvent(QMouseEvent*) override;
    void mousePressEvent(QMouseEvent*) override;

private:
    void prime();
    void relayout();
    QSize pillSize() const;
    QSize panelSize();
    void rebuildRows();
    void paintPill(class QPainter& p, const QRect& r);
    void paintPeek(class QPainter& p, const QRect& r);

    Front& front_;
    QPointer<QScreen> screen_;
    NotchState::Phase phase_ = NotchState::Phase::collapsed;
    QTimer beat_;    // the primed beat before the panel opens
    QTimer leave_;   // absorbs the leave/enter pair of a resize
    QTimer charge_;  // repaints the pre-open light while primed
    qint64 primedAt_ = 0;
    QPointF lastPos_;
    qint64 lastMoveAt_ = 0;
    double speed_ = 0, approach_ = 0;
    bool inside_ = false;
    double reveal_ = 0;  // how far onApproach marks have bloomed (0...1)

    QWidget* panel_ = nullptr;
    QLabel* sessions_ = nullptr;
    QLabel* problem_ = nullptr;
    QPushButton* gear_ = nullptr;
    QScrollArea* scroll_ = nullptr;
    QuotaStrip* quotas_ = nullptr;
    QWidget* list_ = nullptr;
    QWidget* empty_ = nullptr;
    QLabel* emptyTitle_ = nullptr;
    QLabel* emptySubtitle_ = nullptr;
    std::map<std::string, RowWidget*> rows_;
    std::vector<std::string> order_;
};

// The panel's strip under the list: what is left of each plan-usage window,
// its reset and its pace — the lines the terminal view shows, in the panel's
// colours.
class QuotaStrip : public QWidget {
public:
    QuotaStrip(Front& front, QWidget* parent);
    // Reads the model again for `width` pixels; returns the height it needs
    // (0 when there is nothing to show).
    int sync(int width);

protected:
    void paintEvent(QPaintEvent*) override;

private:
    Front& front_;
    std::vector<Line> lines_;
};

// The small settings window the gear opens.
class SettingsWindow : public QWidget {
public:
    explicit SettingsWindow(Front& front);
    void sync();  // shows the stored values again

private:
    Front& front_;
    std::vector<std::function<void()>> syncs_;
};

// The desktop front end's state: the model read from the backend, the peek,
// the confirmations, and one window per chosen display.
class Front {
public:
    Front(ViewBackend& backend, const DesktopViewOptions& options);
    ~Front();

    void refresh();              // the backend changed
    void settingsChanged();      // a setting changed in the settings window
    void syncScreens();          // displays were added, removed or chosen

    const ViewModel& model() const { return model_; }
    const DesktopLook& look() const { return look_; }
    const Palette& palette() const { return palette_; }
    bool translucent() const { return translucent_; }
    const DesktopViewOptions& options() const { return options_; }
    std::vector<AgentInstance> rows() const;
    // The peek shown now, if any.
    const std::optional<PeekEvent>& peek() const { return peek_; }
    std::optional<std::string> confirmation(const std::string& id) const;
    const std::vector<ApprovalChoice>& choices(const std::string& id) const;

    void choose(const std::string& id, ApprovalChoice::Kind kind);
    // Brings the session's terminal, pane or app to the front (a click on its row).
    void open(const std::string& id);
    void panelOpened();
    void panelClosed(bool redraw = true);
    void showSettings();
    std::vector<DisplayInfo> connected() const;
    // The windows, one per chosen display (for benchmarks).
    const std::vector<std::unique_ptr<PillWindow>>& windows() const { return windows_; }

private:
    void endPeek();

    ViewBackend& backend_;
    DesktopViewOptions options_;
    ViewModel model_;
    ViewState state_;  // the order frozen while a panel is open, and confirmations
    DesktopLook look_;
    Palette palette_;
    bool translucent_ = false;
    long long lastPeekToken_ = -1;
    std::optional<PeekEvent> peek_;
    QTimer peekTimer_;
    QTimer tick_;  // ages and timed lines move on
    int openPanels_ = 0;
    std::vector<std::unique_ptr<PillWindow>> windows_;
    std::unique_ptr<SettingsWindow> settings_;
    std::unique_ptr<CursorWatch> cursor_;
};

// Whether windows can be see-through here (a compositing manager runs).
bool compositorRuns();

// Sizes in device-independent pixels.
inline constexpr int kPanelWidth = 580;
inline constexpr int kPillHeight = 30;
inline constexpr int kPeekHeight = 58;
inline constexpr int kPeekWidth = 380;
inline constexpr int kHeaderHeight = 40;
inline constexpr int kFooterHeight = 36;
inline constexpr int kRowPad = 10;
inline constexpr int kLeaveGraceMs = 220;

}  // namespace lumora::ui::desktop
