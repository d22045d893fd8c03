// Fills the screen with eight saturated colour bars that slide sideways, one
// bar width every few seconds, and a white square that bounces; enough motion
// and colour for a capture to show something recognisable.
#include <QtCore/QCommandLineParser>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtGui/QPainter>
#include <QtGui/QScreen>
#include <QtWidgets/QApplication>
#include <QtWidgets/QWidget>

#include <cmath>
#include <iterator>

namespace {

const QColor kBars[]
    = {Qt::red, QColor(255, 128, 0), Qt::yellow, Qt::green, Qt::cyan, Qt::blue, Qt::magenta, Qt::white};

class PatternWindow : public QWidget
{
public:
    explicit PatternWindow(double speed)
        : m_speed(speed)
    {
        setWindowTitle(QStringLiteral("Orvanta test pattern"));
        setAttribute(Qt::WA_OpaquePaintEvent);
        m_clock.start();
        connect(&m_timer, &QTimer::timeout, this, qOverload<>(&QWidget::update));
        m_timer.start(33);
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        const double seconds = m_clock.elapsed() / 1000.0;
        const int barCount = int(std::size(kBars));
        const double barWidth = double(width()) / barCount;
        const double shift = std::fmod(seconds * m_speed * barWidth, double(width()));
        for (int i = -1; i < barCount; ++i) {
            const double x = i * barWidth + shift;
            const QColor colour = kBars[(i + barCount) % barCount];
            painter.fillRect(QRectF(x, 0, barWidth + 1, height()), colour);
            painter.fillRect(QRectF(x - width(), 0, barWidth + 1, height()), colour);
        }
        const int side = std::max(16, height() / 8);
        const double t = std::fmod(seconds * 0.25, 2.0);
        const double travel = t < 1.0 ? t : 2.0 - t;
        painter.fillRect(QRectF(travel * (width() - side), (height() - side) / 2.0, side, side), Qt::black);
    }

private:
    QElapsedTimer m_clock;
    QTimer m_timer;
    double m_speed;
};

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Moving colour bars across every screen."));
    parser.addHelpOption();
    const QCommandLineOption speedOption(
        QStringLiteral("speed"), QStringLiteral("Bar widths per second."), QStringLiteral("n"), QStringLiteral("0.25"));
    parser.addOption(speedOption);
    parser.process(app);

    // One window over the whole virtual desktop, so that every monitor shows bars.
    PatternWindow window(parser.value(speedOption).toDouble());
    window.setWindowFlags(Qt::FramelessWindowHint);
    window.setGeometry(QGuiApplication::primaryScreen()->virtualGeometry());
    window.show();
    return app.exec();
}
