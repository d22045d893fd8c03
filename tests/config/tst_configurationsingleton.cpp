#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <atomic>
#include <thread>
#include <vector>

// A program of its own: the singleton must not exist before the first test.
class ConfigurationSingletonTest : public QObject
{
    Q_OBJECT

private slots:
    void concurrentFirstCallsCreateOneInstance();
    void concurrentFirstReadsLoadTheDocumentOnce(); // needs the document not yet loaded

private:
    /// Runs @p work on eight threads whose first calls overlap.
    template <typename Work> void onEightThreads(Work work);
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

void ConfigurationSingletonTest::concurrentFirstCallsCreateOneInstance()
{
    QStandardPaths::setTestModeEnabled(true);
    QTemporaryDir dir;
    ConfigurationManager::setConfigPath(dir.path());

    QVector<ConfigurationManager*> seen(8, nullptr);
    onEightThreads([&seen](int i) { seen[i] = ConfigurationManager::instance(); });
    ConfigurationManager* instance = ConfigurationManager::instance();
    QVERIFY(instance);
    QCOMPARE(instance->configPath(), dir.path());
    for (ConfigurationManager* each : seen) {
        QCOMPARE(each, instance);
    }
}

void ConfigurationSingletonTest::concurrentFirstReadsLoadTheDocumentOnce()
{
    // Capture threads read the global document as they start, possibly all at
    // once: it is loaded once, and every thread sees the same document.
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
        = QStringLiteral("Failed to open \"%1/global.json\"  errStr: \"No such file or directory\"")
              .arg(ConfigurationManager::instance()->configPath());
    QCOMPARE(log.count(QtCriticalMsg, failedOpen), 1);
}

QTEST_GUILESS_MAIN(ConfigurationSingletonTest)
#include "tst_configurationsingleton.moc"
