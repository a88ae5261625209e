#include <QApplication>
#include <QCursor>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "lumora/ui/desktop/desktop_parts.hpp"
#include "lumora/ui/view_renderer.hpp"

namespace lumora::ui::desktop {

namespace {

constexpr int kPanelRadius = 18;
constexpr int kPrimedSwell = 6;  // the primed pill grows downward by this much

QFont pxFont(int px, bool bold = false) {
    QFont f = QApplication::font();
    f.setPixelSize(px);
    f.setBold(bold);
    return f;
}

// The window's shape: square at the top, where it hangs from the screen's
// edge, rounded below.
QPainterPath shape(const QRectF& r, double radius) {
    radius = std::min({radius, r.height() / 2, r.width() / 2});
    QPainterPath path;
    path.moveTo(r.topLeft());
    path.lineTo(r.topRight());
    path.lineTo(r.right(), r.bottom() - radius);
    path.arcTo(QRectF(r.right() - 2 * radius, r.bottom() - 2 * radius, 2 * radius, 2 * radius), 0, -90);
    path.lineTo(r.left() + radius, r.bottom());
    path.arcTo(QRectF(r.left(), r.bottom() - 2 * radius, 2 * radius, 2 * radius), 270, -90);
    path.closeSubpath();
    return path;
}

bool live(const ViewModel& m) { return !m.instances.empty(); }

qint64 nowMs() { return QDateTime::currentMSecsSinceEpoch(); }

constexpr double kDot = 9, kMark = 24, kSlotGap = 10;

// How far a slot has bloomed from a dot into its provider's initials.
double bloomOf(TabMarks marks, double reveal) {
    return marks == TabMarks::harness ? 1.0 : marks == TabMarks::onApproach ? reveal : 0.0;
}

// The drawn width of the tab's slots, numerals and "+N" tail.
double tabWidth(const AgentDisplay::TabGrouping& tab, double bloom) {
    QFontMetrics fm(pxFont(11, true));
    double total = 0;
    for (const auto& c : tab.clusters) {
        total += kDot + (kMark - kDot) * (c.provider ? bloom : 0);
        if (c.count >= 2) total += 3 + fm.horizontalAdvance(QString::number(c.count));
    }
    if (!tab.clusters.empty()) total += kSlotGap * double(tab.clusters.size() - 1);
    if (tab.hidden > 0) total += 8 + fm.horizontalAdvance("+" + QString::number(tab.hidden));
    return total;
}

}  // namespace

PillWindow::PillWindow(Front& front, QScreen* screen) : front_(front), screen_(screen) {
    setObjectName("pill");
    setWindowTitle("Lumora");
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::Tool | Qt::WindowDoesNotAcceptFocus);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_DeleteOnClose, false);
    if (front_.translucent()) setAttribute(Qt::WA_TranslucentBackground);
    setMouseTracking(true);
    setFocusPolicy(Qt::NoFocus);
    setScreen(screen);

    beat_.setSingleShot(true);
    QObject::connect(&beat_, &QTimer::timeout, [this] {
        if (phase_ != NotchState::Phase::primed || !inside_) return;
        // A cursor still moving fast after the beat is passing through.
        bool recent = nowMs() - lastMoveAt_ < 120;
        std::optional<double> speed = recent ? speed_ : 0.0;
        if (Hover::passesTransitGate(front_.look().hoverReach, speed, recent ? approach_ : 0)) open();
        else beat_.start(int(Hover::beatSeconds(front_.look().hoverResponse) * 1000));
    });
    leave_.setSingleShot(true);
    QObject::connect(&leave_, &QTimer::timeout, [this] {
        if (frameGeometry().contains(QCursor::pos())) {
            inside_ = true;
            return;
        }
        collapse();
    });
    QObject::connect(&charge_, &QTimer::timeout, [this] { update(); });

    // The panel: a header, the list, a footer with the gear.
    panel_ = new QWidget(this);
    panel_->setObjectName("panel");
    auto* outer = new QVBoxLayout(panel_);
    outer->setContentsMargins(0, 6, 0, 4);
    outer->setSpacing(0);
    auto* header = new QHBoxLayout;
    header->setContentsMargins(18, 0, 18, 0);
    auto* title = new QLabel("Lumora", panel_);
    title->setFont(pxFont(13, true));
    sessions_ = new QLabel(panel_);
    sessions_->setFont(pxFont(12));
    header->addWidget(title);
    header->addStretch(1);
    header->addWidget(sessions_);
    auto* headerBox = new QWidget(panel_);
    headerBox->setFixedHeight(kHeaderHeight - 6);
    headerBox->setLayout(header);
    outer->addWidget(headerBox);

    scroll_ = new QScrollArea(panel_);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    scroll_->setWidgetResizable(false);
    scroll_->setFocusPolicy(Qt::NoFocus);
    scroll_->viewport()->setObjectName("viewport");
    scroll_->viewport()->setAutoFillBackground(false);
    scroll_->setStyleSheet("QScrollArea, QScrollArea > QWidget > QWidget{background:transparent;} QScrollBar:vertical{background:transparent;width:8px;}"
                           "QScrollBar::handle:vertical{background:rgba(128,128,128,110);border-radius:4px;min-height:24px;}"
                           "QScrollBar::add-line,QScrollBar::sub-line{height:0;}");
    list_ = new QWidget;
    list_->setAutoFillBackground(false);
    scroll_->setWidget(list_);
    outer->addWidget(scroll_);

    empty_ = new QWidget(panel_);
    auto* emptyLayout = new QVBoxLayout(empty_);
    emptyTitle_ = new QLabel(empty_);
    emptyTitle_->setFont(pxFont(14, true));
    emptyTitle_->setAlignment(Qt::AlignCenter);
    emptySubtitle_ = new QLabel(empty_);
    emptySubtitle_->setFont(pxFont(12));
    emptySubtitle_->setAlignment(Qt::AlignCenter);
    emptySubtitle_->setWordWrap(true);
    emptyLayout->addStretch(1);
    emptyLayout->addWidget(emptyTitle_);
    emptyLayout->addWidget(emptySubtitle_);
    emptyLayout->addStretch(1);
    empty_->setFixedHeight(96);
    outer->addWidget(empty_);

    quotas_ = new QuotaStrip(front_, panel_);
    quotas_->hide();
    outer->addWidget(quotas_);

    auto* footer = new QHBoxLayout;
    footer->setContentsMargins(18, 0, 12, 0);
    problem_ = new QLabel(panel_);
    problem_->setFont(pxFont(11));
    gear_ = new QPushButton("⚙", panel_);
    gear_->setObjectName("settings-button");
    gear_->setToolTip("Settings");
    gear_->setFocusPolicy(Qt::NoFocus);
    gear_->setCursor(Qt::PointingHandCursor);
    gear_->setFixedSize(28, 24);
    QObject::connect(gear_, &QPushButton::clicked, [this] { front_.showSettings(); });
    footer->addWidget(problem_, 1);
    footer->addWidget(gear_);
    auto* footerBox = new QWidget(panel_);
    footerBox->setFixedHeight(kFooterHeight - 4);
    footerBox->setLayout(footer);
    outer->addWidget(footerBox);
    panel_->hide();

    QObject::connect(screen, &QScreen::availableGeometryChanged, [this](const QRect&) { relayout(); });
    QObject::connect(screen, &QScreen::geometryChanged, [this](const QRect&) { relayout(); });
    refresh();
    show();
}

PillWindow::~PillWindow() {
    // Going with its display (or at the end): no redraw of the others from here.
    if (phase_ == NotchState::Phase::expanded) front_.panelClosed(false);
}

void PillWindow::refresh() {
    const Palette& pal = front_.palette();
    QString text = pal.text.name(), muted = pal.muted.name();
    panel_->setStyleSheet(QString("QLabel{color:%1;} QPushButton#settings-button{color:%2;background:transparent;"
                                  "border:none;font-size:17px;} QPushButton#settings-button:hover{color:%1;}")
                              .arg(text, muted));
    if (phase_ == NotchState::Phase::expanded) rebuildRows();
    relayout();
    update();
}

void PillWindow::rebuildRows() {
    auto rows = front_.rows();
    const ViewModel& m = front_.model();
    std::string label = AgentDisplay::sessionsLabel(m.instances, rows);
    if (m.spend && m.spend->todayTokens > 0) label += "  ·  " + ViewRenderer::spendText(*m.spend);
    sessions_->setText(QString::fromStdString(label));
    problem_->setText(m.problem ? QString::fromStdString(sanitize(*m.problem)) : QString());
    problem_->setStyleSheet(QString("color:%1;").arg(statusColour(AgentStatus::waiting).name()));
    if (auto copy = AgentDisplay::emptyCopy(m.instances, rows)) {
        emptyTitle_->setText(QString::fromStdString(copy->title));
        emptySubtitle_->setText(QString::fromStdString(copy->subtitle));
        empty_->show();
        scroll_->hide();
    } else {
        empty_->hide();
        scroll_->show();
    }
    std::map<std::string, RowWidget*> next;
    order_.clear();
    for (const auto& a : rows) {
        auto it = rows_.find(a.id);
        RowWidget* w = nullptr;
        if (it != rows_.end()) {
            w = it->second;
            rows_.erase(it);
            w->setInstance(a);
        } else {
            w = new RowWidget(front_, a, list_);
        }
        next[a.id] = w;
        order_.push_back(a.id);
    }
    for (auto& [id, w] : rows_) w->deleteLater();
    rows_ = std::move(next);
}

QSize PillWindow::pillSize() const {
    const ViewModel& m = front_.model();
    if (front_.peek()) return QSize(kPeekWidth, kPeekHeight);
    auto tab = AgentDisplay::tabClusters(m.instances, distinguishesHarness(m.settings.tabMarks));
    // The pill's ends hold the rounded caps; the slots widen it as they bloom.
    double rest = tabWidth(tab, bloomOf(m.settings.tabMarks, 0));
    double bloomed = tabWidth(tab, bloomOf(m.settings.tabMarks, reveal_));
    int w = int(std::ceil(std::max(96.0, rest + 44) + (bloomed - rest)));
    int h = live(m) ? kPillHeight : kPillHeight - 8;
    if (phase_ == NotchState::Phase::primed) {
        w += 2 * kPrimedSwell;
        h += kPrimedSwell;
    }
    return QSize(w, h);
}

QSize PillWindow::panelSize() {
    QRect avail = screen_ ? screen_->availableGeometry() : QRect(0, 0, 1280, 800);
    int width = std::min(kPanelWidth, avail.width() - 16);
    int inner = width;
    int limit = std::max(1, front_.model().settings.visibleRowLimit);
    int listH = 0, total = 0, n = 0;
    for (const auto& id : order_) {
        RowWidget* w = rows_[id];
        int h = w->heightFor(inner);
        w->setGeometry(0, total, inner, h);
        total += h;
        // The viewport is fixed at the row limit; later rows scroll.
        if (n++ < limit) listH = total;
    }
    list_->setFixedSize(inner, std::max(total, 1));
    int strip = quotas_->sync(width);
    quotas_->setFixedHeight(strip);
    quotas_->setVisible(strip > 0);
    int maxList = std::max(80, avail.height() - 24 - kHeaderHeight - kFooterHeight - strip);
    bool scrolls = total > std::min(listH, maxList);
    listH = std::min(listH, maxList);
    if (scrolls) list_->setFixedWidth(inner - 10);
    if (scrolls) {
        for (const auto& id : order_) {
            RowWidget* w = rows_[id];
            w->setGeometry(0, w->y(), inner - 10, w->heightFor(inner - 10));
        }
        int y = 0;
        for (const auto& id : order_) {
            RowWidget* w = rows_[id];
            w->move(0, y);
            y += w->height();
        }
        list_->setFixedHeight(std::max(y, 1));
    }
    scroll_->setFixedHeight(order_.empty() ? 0 : listH);
    int height = kHeaderHeight + kFooterHeight + (order_.empty() ? empty_->height() : listH) + strip + 10;
    return QSize(width, height);
}

void PillWindow::relayout() {
    if (!screen_) return;
    QRect avail = screen_->availableGeometry();
    QSize size = phase_ == NotchState::Phase::expanded ? panelSize() : pillSize();
    size.setWidth(std::min(size.width(), avail.width()));
    QRect r(avail.x() + (avail.width() - size.width()) / 2, avail.y(), size.width(), size.height());
    panel_->setVisible(phase_ == NotchState::Phase::expanded);
    bool moved = geometry() != r || !isVisible();
    if (geometry() != r) setGeometry(r);
    panel_->setGeometry(rect());
    if (!front_.translucent() && QGuiApplication::platformName() == "xcb") {
        // Without a compositor the corners are cut out of the window instead.
        double radius = phase_ == NotchState::Phase::expanded ? kPanelRadius : size.height() / 2.0;
        setMask(QRegion(shape(QRectF(QPointF(0, 0), QSizeF(size)), radius).toFillPolygon().toPolygon()));
    }
    if (!isVisible()) show();
    if (moved) raise();
    Trace::sweepSoon();
}

void PillWindow::prime() {
    if (Hover::skipsBeat(front_.look().hoverResponse, approach_)) {
        open();
        return;
    }
    phase_ = NotchState::Phase::primed;
    primedAt_ = nowMs();
    beat_.start(int(Hover::beatSeconds(front_.look().hoverResponse) * 1000));
    charge_.start(16);
    relayout();
    update();
}

void PillWindow::open() {
    beat_.stop();
    charge_.stop();
    if (phase_ == NotchState::Phase::expanded) return;
    phase_ = NotchState::Phase::expanded;
    front_.panelOpened();
    rebuildRows();
    scroll_->verticalScrollBar()->setValue(0);
    relayout();
    update();
}

void PillWindow::collapse() {
    beat_.stop();
    charge_.stop();
    bool wasOpen = phase_ == NotchState::Phase::expanded;
    phase_ = NotchState::Phase::collapsed;
    if (wasOpen) front_.panelClosed();
    relayout();
    update();
}

void PillWindow::cursorAt(QPoint pos, double vx, double vy) {
    if (!inside_) {
        // How the cursor arrives: a flick upward skips the beat on entering.
        speed_ = std::hypot(vx, vy);
        approach_ = Hover::approachSpeed(vx, vy);
        lastPos_ = pos;
        lastMoveAt_ = nowMs();
    }
    bool follows = followsProximity(front_.model().settings.tabMarks) && phase_ != NotchState::Phase::expanded &&
                   !front_.peek();
    double reveal = 0;
    if (follows) {
        QRect g = geometry();
        double dx = std::max({0, g.left() - pos.x(), pos.x() - g.right()});
        double dy = std::max({0, g.top() - pos.y(), pos.y() - g.bottom()});
        reveal = Layout::tabRevealProgress(std::hypot(dx, dy));
    }
    if (std::abs(reveal - reveal_) > 0.02 || (reveal == 0) != (reveal_ == 0) || (reveal == 1) != (reveal_ == 1)) {
        reveal_ = reveal;
        relayout();
        update();
    }
}

void PillWindow::enterEvent(QEnterEvent* e) {
    inside_ = true;
    leave_.stop();
    lastPos_ = e->globalPosition();
    lastMoveAt_ = nowMs();
    if (phase_ == NotchState::Phase::collapsed) prime();
}

void PillWindow::leaveEvent(QEvent*) {
    inside_ = false;
    // A resize makes the window system send a leave and an enter; wait a
    // moment before believing the cursor has gone.
    leave_.start(kLeaveGraceMs);
}

void PillWindow::mouseMoveEvent(QMouseEvent* e) {
    qint64 t = nowMs();
    QPointF pos = e->globalPosition();
    double dt = std::max<qint64>(1, t - lastMoveAt_) / 1000.0;
    double vx = (pos.x() - lastPos_.x()) / dt, vy = (pos.y() - lastPos_.y()) / dt;
    speed_ = std::hypot(vx, vy);
    approach_ = Hover::approachSpeed(vx, vy);
    lastPos_ = pos;
    lastMoveAt_ = t;
    if (!inside_) {
        inside_ = true;
        leave_.stop();
    }
    if (phase_ == NotchState::Phase::collapsed) {
        prime();
    } else if (phase_ == NotchState::Phase::primed) {
        auto response = front_.look().hoverResponse;
        if (Hover::skipsBeat(response, approach_)) open();
        else if (response == HoverResponse::deliberate && !Hover::isStill(speed_))
            beat_.start(int(Hover::beatSeconds(response) * 1000));  // deliberate waits for a still cursor
    }
}

void PillWindow::mousePressEvent(QMouseEvent* e) {
    // A click on the pill opens the panel at once.
    if (phase_ != NotchState::Phase::expanded) open();
    e->accept();
}

void PillWindow::paintEvent(QPaintEvent*) {
    const Palette& pal = front_.palette();
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    if (front_.translucent()) {
        p.setCompositionMode(QPainter::CompositionMode_Source);
        p.fillRect(rect(), Qt::transparent);
        p.setCompositionMode(QPainter::CompositionMode_SourceOver);
    }
    QRectF r = QRectF(rect());
    if (phase_ == NotchState::Phase::expanded) {
        QPainterPath path = shape(r, kPanelRadius);
        p.fillPath(path, pal.panel);
        p.setPen(QPen(pal.hairline, 1));
        p.drawPath(shape(r.adjusted(0.5, -1, -0.5, -0.5), kPanelRadius));
        p.setPen(pal.hairline);
        p.drawLine(QPointF(16, kHeaderHeight - 0.5), QPointF(r.width() - 16, kHeaderHeight - 0.5));
        p.drawLine(QPointF(16, r.height() - kFooterHeight - 0.5), QPointF(r.width() - 16, r.height() - kFooterHeight - 0.5));
        return;
    }
    if (front_.peek()) paintPeek(p, rect());
    else paintPill(p, rect());
}

void PillWindow::paintPill(QPainter& p, const QRect& rect) {
    const Palette& pal = front_.palette();
    const ViewModel& m = front_.model();
    QRectF r(rect);
    QPainterPath path = shape(r, r.height() / 2);
    p.fillPath(path, pal.pill);
    bool primed = phase_ == NotchState::Phase::primed;

    auto tab = AgentDisplay::tabClusters(m.instances, distinguishesHarness(m.settings.tabMarks));
    bool needsYou = std::any_of(m.instances.begin(), m.instances.end(), [&](const AgentInstance& a) {
        return a.status == AgentStatus::attention && !m.acknowledged.count(a.id);
    });
    if (needsYou) {
        // The needs-you glow: the rim in the attention colour.
        QColor c = statusColour(AgentStatus::attention);
        c.setAlpha(200);
        p.setPen(QPen(c, 1.5));
        p.drawPath(shape(r.adjusted(0.75, -2, -0.75, -0.75), r.height() / 2));
    }
    if (primed) {
        // The pre-open light: ignites from nothing and brightens to the open.
        double beat = Hover::beatSeconds(front_.look().hoverResponse) * 1000;
        double charge = std::clamp((nowMs() - primedAt_) / beat, 0.0, 1.0);
        QColor c(255, 255, 255, int(70 * charge));
        p.setPen(QPen(c, 1.5));
        p.drawPath(shape(r.adjusted(0.75, -2, -0.75, -0.75), r.height() / 2));
    }
    if (tab.clusters.empty()) {
        // Nothing live: the resting lip, a hairline the cursor can find.
        QColor lip = pal.pillText;
        lip.setAlpha(primed ? 150 : 80);
        p.setPen(QPen(lip, 1));
        double y = r.bottom() - 5.5;
        p.drawLine(QPointF(r.center().x() - 16, y), QPointF(r.center().x() + 16, y));
        return;
    }
    double bloom = bloomOf(m.settings.tabMarks, reveal_);
    QFont numeral = pxFont(11, true);
    QFontMetrics fm(numeral);
    QString more = tab.hidden > 0 ? "+" + QString::number(tab.hidden) : QString();
    double x = r.center().x() - tabWidth(tab, bloom) / 2;
    double cy = r.center().y() - (primed ? 1 : 0);
    for (const auto& c : tab.clusters) {
        QColor col = statusColour(c.status);
        // A dot that blooms into a rounded box carrying the provider's initials.
        double b = c.provider ? bloom : 0;
        double w = kDot + (kMark - kDot) * b, h = kDot + (16 - kDot) * b;
        QRectF box(x, cy - h / 2, w, h);
        p.setPen(Qt::NoPen);
        p.setBrush(col);
        p.drawRoundedRect(box, std::min(h / 2, 4.5 + 0.5 * b), std::min(h / 2, 4.5 + 0.5 * b));
        if (b > 0.55) {
            p.setFont(pxFont(10, true));
            p.setPen(QColor(12, 12, 14, int(255 * std::clamp((b - 0.55) / 0.45, 0.0, 1.0))));
            p.drawText(box, Qt::AlignCenter, QString::fromStdString(ViewRenderer::providerInitials(*c.provider)));
        }
        x += w;
        if (c.count >= 2) {
            p.setFont(numeral);
            p.setPen(pal.pillText);
            QString n = QString::number(c.count);
            p.drawText(QRectF(x + 3, cy - 8, fm.horizontalAdvance(n) + 2, 16), Qt::AlignLeft | Qt::AlignVCenter, n);
            x += 3 + fm.horizontalAdvance(n);
        }
        x += kSlotGap;
    }
    if (!more.isEmpty()) x += 8 - kSlotGap;
    if (!more.isEmpty()) {
        p.setFont(numeral);
        QColor c = pal.pillText;
        c.setAlpha(150);
        p.setPen(c);
        p.drawText(QRectF(x, cy - 8, fm.horizontalAdvance(more) + 4, 16), Qt::AlignLeft | Qt::AlignVCenter, more);
    }
}

void PillWindow::paintPeek(QPainter& p, const QRect& rect) {
    const Palette& pal = front_.palette();
    const PeekEvent& peek = *front_.peek();
    QRectF r(rect);
    p.fillPath(shape(r, 22), pal.pill);
    QColor accent = statusColour(peek.done ? AgentStatus::working : AgentStatus::attention);
    QColor rim = accent;
    rim.setAlpha(190);
    p.setPen(QPen(rim, 1.5));
    p.drawPath(shape(r.adjusted(0.75, -2, -0.75, -0.75), 22));

    // The mark: a check for a finished turn, a dot for a need.
    QRectF mark(18, r.height() / 2 - 9, 18, 18);
    p.setPen(Qt::NoPen);
    p.setBrush(accent);
    p.drawEllipse(mark);
    p.setPen(QPen(QColor(12, 12, 14), 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    if (peek.done) {
        QPainterPath tick;
        tick.moveTo(mark.x() + 5, mark.center().y());
        tick.lineTo(mark.x() + 8, mark.center().y() + 3.5);
        tick.lineTo(mark.x() + 13.5, mark.center().y() - 3.5);
        p.setBrush(Qt::NoBrush);
        p.drawPath(tick);
    } else {
        p.setFont(pxFont(12, true));
        p.drawText(mark, Qt::AlignCenter, "!");
    }

    int left = 48, width = int(r.width()) - left - 20;
    std::string who = peek.projectName.empty() ? std::string(scrivet::displayName(peek.provider)) : peek.projectName;
    QFont title = pxFont(13, true), line = pxFont(12);
    p.setFont(title);
    p.setPen(pal.pillText);
    p.drawText(QRect(left, 9, width, 20), Qt::AlignLeft | Qt::AlignVCenter,
               QFontMetrics(title).elidedText(QString::fromStdString(sanitize(who)), Qt::ElideRight, width));
    p.setFont(line);
    QColor ask = pal.pillText;
    ask.setAlpha(190);
    p.setPen(ask);
    QString text = QString::fromStdString(scrivet::collapseWhitespace(sanitize(peek.ask)));
    p.drawText(QRect(left, 29, width, 19), Qt::AlignLeft | Qt::AlignVCenter,
               QFontMetrics(line).elidedText(text, Qt::ElideRight, width));
}

}  // namespace lumora::ui::desktop
