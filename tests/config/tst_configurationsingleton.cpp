#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

// A program of its own, because it is about the singleton. Each function
// starts with no singleton and a configuration directory of its own, so that
// each one passes or fails alone, in any order.
class ConfigurationSingletonTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void concurrentFirstCallsCreateOneInstance();
    void concurrentFirstReadsLoadTheDocumentOnce();
    void messageHandlerMayReadTheConfigurationDuringAFailedFirstLoad();

private:
    /// Runs @p work on eight threads whose first calls overlap.
    template <typename Work> void onEightThreads(Work work);

    std::unique_ptr<QTemporaryDir> m_dir;
    bool m_readerStuck = false;
};

template <typename Work> void ConfigurationSingletonTest::onEightThreads(Work work)
{
    constexpr int threadCount = 8;
    std::atomic<int> waiting {threadCount};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&waiting, &work, i] {
            // Line the threads up so that their first calls overlap.
            --waiting;
            while (waiting.load() > 0) {
                std::this_thread::yield();
            }
            work(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void ConfigurationSingletonTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
}

void ConfigurationSingletonTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    ConfigurationManager::setConfigPath(m_dir->path());
}

void ConfigurationSingletonTest::cleanup()
{
    // The destructor forgets the singleton: the next function makes its own.
    // A reader left stuck inside it keeps it.
    if (!m_readerStuck) {
        delete ConfigurationManager::instance();
    }
    ConfigurationManager::setConfigPath(QString());
    m_dir.reset();
}

void ConfigurationSingletonTest::concurrentFirstCallsCreateOneInstance()
{
    // The first calls overlap only now and then on a small machine: many
    // rounds, each from no singleton at all.
    for (int round = 0; round < 200; ++round) {
        QVector<ConfigurationManager*> seen(8, nullptr);
        onEightThreads([&seen](int i) { seen[i] = ConfigurationManager::instance(); });
        ConfigurationManager* instance = ConfigurationManager::instance();
        QVERIFY(instance);
        QCOMPARE(instance->configPath(), m_dir->path());
        for (ConfigurationManager* each : seen) {
            QCOMPARE(each, instance);
        }
        delete instance;
    }
}

void ConfigurationSingletonTest::concurrentFirstReadsLoadTheDocumentOnce()
{
    // Capture threads read the global document as they start, possibly all at
    // once: it is loaded once, and every thread sees the same document. The
    // reads overlap only now and then on a small machine: many rounds, each
    // with a new singleton on a directory of its own.
    for (int round = 0; round < 50; ++round) {
        delete ConfigurationManager::instance();
        const QString dir = m_dir->filePath(QStringLiteral("round%1").arg(round));
        ConfigurationManager::setConfigPath(dir);
        MessageCapture log;
        QVector<const QJsonObject*> seen(8, nullptr);
        onEightThreads([&seen](int i) {
            seen[i] = &ConfigurationManager::instance()->AppConfigJsonObj();
            ConfigurationManager::instance()->appConfig(QStringLiteral("devUpdateInterval"));
        });
        const QJsonObject* document = &ConfigurationManager::instance()->AppConfigJsonObj();
        for (const QJsonObject* each : seen) {
            QCOMPARE(each, document);
        }
        const QString failedOpen
            = QStringLiteral("Failed to open \"%1/global.json\"  errStr: \"No such file or directory\"").arg(dir);
        QCOMPARE(log.count(QtCriticalMsg, failedOpen), 1);
        QCOMPARE(log.messages().size(), 1);
    }
}

namespace {

std::atomic<int> s_handled {0};
std::atomic<int> s_valueSeen {0};

// An application's handler that looks up its own settings for each message.
void handlerThatReadsTheConfiguration(QtMsgType, const QMessageLogContext&, const QString&)
{
    s_valueSeen = ConfigurationManager::instance()->appConfig(QStringLiteral("logLevel")).toInt(7);
    ++s_handled;
}

} // namespace

void ConfigurationSingletonTest::messageHandlerMayReadTheConfigurationDuringAFailedFirstLoad()
{
    // No "global.json": the first read reports "Failed to open", and the
    // handler reads the same document while that report is being made.
    s_handled = 0;
    s_valueSeen = 0;
    const QtMessageHandler previous = qInstallMessageHandler(handlerThatReadsTheConfiguration);
    auto finished = std::make_shared<std::promise<int>>();
    std::future<int> result = finished->get_future();
    std::thread reader([finished] {
        finished->set_value(ConfigurationManager::instance()->appConfig(QStringLiteral("devUpdateInterval")).toInt(33));
    });
    const bool returned = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    qInstallMessageHandler(previous);
    if (!returned) {
        // The reader is stuck for good; leave it behind rather than hang here.
        reader.detach();
        m_readerStuck = true;
        QFAIL("A configuration read from the message handler did not return within 10 s");
    }
    reader.join();
    QCOMPARE(result.get(), 33);
    QCOMPARE(s_handled.load(), 1);
    QCOMPARE(s_valueSeen.load(), 7);
}

QTEST_GUILESS_MAIN(ConfigurationSingletonTest)
#include "tst_configurationsingleton.moc"
