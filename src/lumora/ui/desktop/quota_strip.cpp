#include <QFontDatabase>
#include <QPainter>

#include <algorithm>

#include "lumora/ui/desktop/desktop_parts.hpp"
#include "lumora/ui/view_renderer.hpp"

namespace lumora::ui::desktop {

namespace {

constexpr int kSide = 18;        // the panel's text margin
constexpr int kStripLine = 18;   // one line of the strip
constexpr int kMaxLines = 4;     // providers shown; the terminal view has the rest

QFont stripFont(bool bold) {
    QFont f = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    f.setPixelSize(11);
    f.setBold(bold);
    return f;
}

QColor roleColour(Role r, const Palette& pal) {
    switch (r) {
        case Role::attention: return statusColour(AgentStatus::attention);
        case Role::working: return statusColour(AgentStatus::working);
        case Role::waiting: return statusColour(AgentStatus::waiting);
        case Role::idle: return statusColour(AgentStatus::idle);
        case Role::alert: return QColor(237, 41, 41);
        case Role::claudeCode: return providerColour(HarnessProvider::claudeCode);
        case Role::cursor: return providerColour(HarnessProvider::cursor);
        case Role::codex: return providerColour(HarnessProvider::codex);
        case Role::kimi: return providerColour(HarnessProvider::kimi);
        case Role::opencode: return providerColour(HarnessProvider::opencode);
        case Role::muted:
        case Role::keyLabel:
        case Role::header: return pal.muted;
        default: return pal.text;
    }
}

}  // namespace

QuotaStrip::QuotaStrip(Front& front, QWidget* parent) : QWidget(parent), front_(front) {
    setObjectName("quota-strip");
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

int QuotaStrip::sync(int width) {
    int column = std::max(1, QFontMetrics(stripFont(false)).horizontalAdvance('0'));
    int columns = std::max(20, (width - 2 * kSide) / column);
    lines_ = ViewRenderer::quotaStrip(front_.model(), columns, kMaxLines);
    update();
    return lines_.empty() ? 0 : int(lines_.size()) * kStripLine + 10;
}

void QuotaStrip::paintEvent(QPaintEvent*) {
    if (lines_.empty()) return;
    const Palette& pal = front_.palette();
    QPainter p(this);
    p.setPen(pal.hairline);
    p.drawLine(QPointF(16, 0.5), QPointF(width() - 16, 0.5));
    int y = 6;
    for (const Line& line : lines_) {
        // The renderer's lines start with a column of margin; the panel has its own.
        int x = kSide - QFontMetrics(stripFont(false)).horizontalAdvance(' ');
        for (const Span& span : line.spans) {
            QFont f = stripFont(span.style.bold);
            QColor c = roleColour(span.style.role, pal);
            if (span.style.dim) c.setAlphaF(c.alphaF() * 0.6);
            p.setFont(f);
            p.setPen(c);
            QString text = QString::fromStdString(span.text);
            p.drawText(QRect(x, y, width() - x, kStripLine), Qt::AlignLeft | Qt::AlignVCenter, text);
            x += QFontMetrics(f).horizontalAdvance(text);
        }
        y += kStripLine;
    }
}

}  // namespace lumora::ui::desktop
