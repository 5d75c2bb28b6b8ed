#include "app/MessageLogView.hpp"

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QTimer>
#include <algorithm>

namespace kavrin {
namespace {

constexpr int margin = 4;  // pixels left of the text, as a text edit keeps
// New lines are shown at most this often: a flood repaints 40 times a second, not per line.
constexpr auto refreshInterval = std::chrono::milliseconds(25);

QString fromUtf8(std::string_view bytes) {
    return QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

}  // namespace

MessageLogView::MessageLogView(QWidget* parent) : QAbstractScrollArea(parent) {
    setFocusPolicy(Qt::StrongFocus);
    verticalScrollBar()->setSingleStep(1);
    connect(horizontalScrollBar(), &QScrollBar::valueChanged, viewport(),
            qOverload<>(&QWidget::update));
    connect(verticalScrollBar(), &QScrollBar::valueChanged, viewport(),
            qOverload<>(&QWidget::update));
}

void MessageLogView::append(std::string_view line) {
    lines_.append(line);
    if (!refreshPosted_) {
        refreshPosted_ = true;
        QTimer::singleShot(refreshInterval, this, &MessageLogView::refresh);
    }
}

QString MessageLogView::line(std::size_t index) const {
    return fromUtf8(lines_[index]);
}

QString MessageLogView::text(std::size_t first, std::size_t last) const {
    QString text;
    for (std::size_t i = first; i <= last && i < lines_.size(); ++i) {
        text += line(i);
        text += QLatin1Char('\n');
    }
    return text;
}

int MessageLogView::lineHeight() const {
    return std::max(1, fontMetrics().lineSpacing());
}

int MessageLogView::visibleLines() const {
    return std::max(1, viewport()->height() / lineHeight());
}

std::size_t MessageLogView::lineAt(int y) const {
    const auto row = static_cast<std::size_t>(verticalScrollBar()->value()) +
                     static_cast<std::size_t>(std::max(0, y) / lineHeight());
    return std::min(row, lines_.size() - 1);
}

// Ranges in lines vertically and pixels across; the newest line is shown, as on every append.
void MessageLogView::refresh() {
    refreshPosted_ = false;
    // Only a new longest line can widen the text; it is measured once.
    if (lines_.size() > measured_ && lines_.longest() >= measured_) {
        widest_ = std::max(widest_, fontMetrics().horizontalAdvance(line(lines_.longest())));
    }
    measured_ = lines_.size();
    const int count = static_cast<int>(std::min<std::size_t>(lines_.size(), INT_MAX));
    verticalScrollBar()->setPageStep(visibleLines());
    verticalScrollBar()->setRange(0, std::max(0, count - visibleLines()));
    verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    horizontalScrollBar()->setPageStep(viewport()->width());
    horizontalScrollBar()->setRange(0, std::max(0, widest_ + 2 * margin - viewport()->width()));
    viewport()->update();
}

void MessageLogView::paintEvent(QPaintEvent*) {
    QPainter painter(viewport());
    const int height = lineHeight();
    const int ascent = fontMetrics().ascent();
    const int x = margin - horizontalScrollBar()->value();
    const auto first = static_cast<std::size_t>(verticalScrollBar()->value());
    const std::size_t end = std::min(lines_.size(), first + static_cast<std::size_t>(visibleLines()) + 1);
    const std::size_t low = std::min(anchor_, current_), high = std::max(anchor_, current_);
    for (std::size_t row = first; row < end; ++row) {
        const int y = static_cast<int>(row - first) * height;
        const bool highlighted = selected_ && row >= low && row <= high;
        if (highlighted) {
            painter.fillRect(0, y, viewport()->width(), height, palette().highlight());
        }
        painter.setPen(palette().color(highlighted ? QPalette::HighlightedText : QPalette::Text));
        painter.drawText(x, y + ascent, line(row));
    }
}

void MessageLogView::resizeEvent(QResizeEvent* event) {
    QAbstractScrollArea::resizeEvent(event);
    refresh();
}

void MessageLogView::changeEvent(QEvent* event) {
    QAbstractScrollArea::changeEvent(event);
    if (event->type() == QEvent::FontChange) {
        measured_ = 0;
        widest_ = 0;
        refresh();
    }
}

void MessageLogView::keyPressEvent(QKeyEvent* event) {
    if (event->matches(QKeySequence::SelectAll) && lines_.size() > 0) {
        anchor_ = 0;
        current_ = lines_.size() - 1;
        selected_ = true;
        viewport()->update();
    } else if (event->matches(QKeySequence::Copy)) {
        if (selected_) {
            QApplication::clipboard()->setText(
                text(std::min(anchor_, current_), std::max(anchor_, current_)));
        }
    } else {
        QAbstractScrollArea::keyPressEvent(event);
    }
}

void MessageLogView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || lines_.size() == 0) {
        QAbstractScrollArea::mousePressEvent(event);
        return;
    }
    current_ = lineAt(event->position().toPoint().y());
    if (!(selected_ && event->modifiers() & Qt::ShiftModifier)) anchor_ = current_;
    selected_ = true;
    viewport()->update();
}

void MessageLogView::mouseMoveEvent(QMouseEvent* event) {
    if (!(event->buttons() & Qt::LeftButton) || lines_.size() == 0) return;
    current_ = lineAt(event->position().toPoint().y());
    viewport()->update();
}

}  // namespace kavrin
