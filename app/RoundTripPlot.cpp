#include "app/RoundTripPlot.hpp"

#include <QAreaSeries>
#include <QChart>
#include <QChartView>
#include <QComboBox>
#include <QDateTime>
#include <QDateTimeAxis>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineSeries>
#include <QLogValueAxis>
#include <QPointer>
#include <QScatterSeries>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

namespace kavrin {
namespace {

using namespace std::chrono;

// A bucket a tick wide over the last hour; zoomed out, about two a pixel.
constexpr std::size_t hourBuckets = 1800;
constexpr std::size_t allBuckets = 600;
// Reading a week of pings takes a moment on the history's thread: once a minute of ticks.
constexpr int paintsBetweenReadsOfAll = 30;

double msecs(PingPlot::TimePoint at) {
    return static_cast<double>(duration_cast<milliseconds>(at.time_since_epoch()).count());
}

QFont small(QFont font) {
    font.setPointSizeF(7);
    return font;
}

}  // namespace

// The chart and its series, made once and refilled at each reading.
class RoundTripPlot::Chart {
  public:
    // Made with its chart: a view made without one makes its own, which setChart() would orphan.
    explicit Chart(QWidget* parent) : view(new QChartView(new QChart(), parent)) {
        auto* chart = view->chart();
        chart->legend()->hide();
        chart->setMargins(QMargins(2, 2, 2, 2));
        chart->setBackgroundRoundness(0);
        view->setRenderHint(QPainter::Antialiasing);
        view->setMinimumHeight(110);

        time->setFormat(QStringLiteral("HH:mm"));
        time->setTickCount(4);
        time->setLabelsFont(small(time->labelsFont()));
        roundTrip->setLabelFormat(QStringLiteral("%g"));  // the unit is in the title: room
        roundTrip->setMinorTickCount(0);
        roundTrip->setLabelsFont(small(roundTrip->labelsFont()));
        chart->addAxis(time, Qt::AlignBottom);
        chart->addAxis(roundTrip, Qt::AlignLeft);

        outages->setObjectName(QStringLiteral("outages"));
        outages->setColor(QColor(255, 0, 0, 60));
        outages->setBorderColor(Qt::transparent);
        answered->setObjectName(QStringLiteral("roundTrips"));
        answered->setMarkerSize(3);
        answered->setColor(QColor(0x20, 0x40, 0xA0));
        answered->setBorderColor(Qt::transparent);
        lost->setObjectName(QStringLiteral("lost"));
        lost->setMarkerShape(QScatterSeries::MarkerShapeRectangle);
        lost->setMarkerSize(5);
        lost->setColor(Qt::red);
        lost->setBorderColor(Qt::transparent);
        for (QAbstractSeries* series : {static_cast<QAbstractSeries*>(outages),
                                        static_cast<QAbstractSeries*>(answered),
                                        static_cast<QAbstractSeries*>(lost)}) {
            chart->addSeries(series);
            series->attachAxis(time);
            series->attachAxis(roundTrip);
        }
    }

    void fill(const PingPlot& plot) {
        QList<QPointF> times, lostAt;
        double fastest = INFINITY, slowest = 0;
        for (const auto& bucket : plot.buckets) {
            const double x = msecs(bucket.firstSent);
            if (bucket.worstRoundTrip) {
                const double ms = std::max(1.0, static_cast<double>(bucket.worstRoundTrip->count())) / 1000;
                times.append({x, ms});
                fastest = std::min(fastest, ms);
                slowest = std::max(slowest, ms);
            }
            if (bucket.lost > 0) lostAt.append({x, 0});
        }
        // Whole decades, at least 0.1 to 10 ms, so that the scale moves seldom.
        const double low = std::pow(10, std::floor(std::log10(std::min(fastest, 0.1))));
        const double high = std::pow(10, std::ceil(std::log10(std::max(slowest * 1.5, 10.0))));
        // A label a decade is more than the plot's height holds over a wide range.
        roundTrip->setBase(high / low > 1e4 ? 100 : 10);
        roundTrip->setRange(low, high);
        const double top = high / 1.6;  // just under the top on a log scale
        for (QPointF& at : lostAt) at.setY(top);

        QList<QPointF> upper;
        for (const auto& [started, ended] : plot.outages) {
            const double from = msecs(std::max(started, plot.from));
            const double to = msecs(std::min(ended, plot.to));
            upper.append({{from, low}, {from, high}, {to, high}, {to, low}});
        }
        outageTop->replace(upper);
        outageBottom->replace({{msecs(plot.from), low}, {msecs(plot.to), low}});
        answered->replace(times);
        lost->replace(lostAt);
        // A minute at least, so that the first pings after a start do not fill the width.
        const auto from = std::min(plot.from, plot.to - minutes(1));
        const auto span = plot.to - from;
        time->setFormat(span > hours(24)     ? QStringLiteral("d MMM")
                        : span > minutes(10) ? QStringLiteral("HH:mm")
                                             : QStringLiteral("HH:mm:ss"));
        time->setRange(QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(msecs(from))),
                       QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(msecs(plot.to))));
    }

    QChartView* view;
    QDateTimeAxis* time = new QDateTimeAxis(view);
    QLogValueAxis* roundTrip = new QLogValueAxis(view);
    QLineSeries* outageTop = new QLineSeries(view);
    QLineSeries* outageBottom = new QLineSeries(view);
    QAreaSeries* outages = new QAreaSeries(outageTop, outageBottom);
    QScatterSeries* answered = new QScatterSeries(view);
    QScatterSeries* lost = new QScatterSeries(view);
};

RoundTripPlot::RoundTripPlot(QWidget* parent)
    : QWidget(parent), spanBox_(new QComboBox(this)), chart_(std::make_unique<Chart>(this)) {
    auto* title = new QLabel(tr("Round trips, ms"), this);
    title->setFont(small(title->font()));
    spanBox_->addItems({tr("last hour"), tr("all kept")});
    spanBox_->setFont(small(spanBox_->font()));
    connect(spanBox_, &QComboBox::activated, this,
            [this](int index) { setSpan(index == 0 ? Span::lastHour : Span::all); });

    auto* header = new QHBoxLayout();
    header->addWidget(title);
    header->addStretch();
    header->addWidget(spanBox_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(header);
    layout->addWidget(chart_->view);
}

RoundTripPlot::~RoundTripPlot() = default;

void RoundTripPlot::setHistory(LinkHistory* history) {
    history_ = history;
    refresh();
}

void RoundTripPlot::painted() {
    if (span_ == Span::lastHour || ++paintsSinceRead_ >= paintsBetweenReadsOfAll) refresh();
}

void RoundTripPlot::setSpan(Span span) {
    span_ = span;
    spanBox_->setCurrentIndex(span == Span::lastHour ? 0 : 1);
    refresh();
}

void RoundTripPlot::refresh() {
    if (!history_) return;
    paintsSinceRead_ = 0;
    const auto now = system_clock::now();
    const bool hour = span_ == Span::lastHour;
    history_->plot(hour ? std::optional(now - hours(1)) : std::nullopt, now,
                   hour ? hourBuckets : allBuckets,
                   [self = QPointer<RoundTripPlot>(this)](PingPlot plot) {
                       if (self) self->draw(std::move(plot));
                   });
}

void RoundTripPlot::draw(PingPlot plot) {
    chart_->fill(plot);
    shown_ = std::move(plot);
    emit drawn();
}

}  // namespace kavrin
