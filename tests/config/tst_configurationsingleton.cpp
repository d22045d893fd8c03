#include "ConfigurationManager.h"

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <atomic>

// A program of its own: the singleton must not exist before the first test.
class ConfigurationSingletonTest : public QObject
{
    Q_OBJECT

private slots:
    void concurrentFirstCallsCreateOneInstance();
};

void ConfigurationSingletonTest::concurrentFirstCallsCreateOneInstance()
{
    QStandardPaths::setTestModeEnabled(true);
    QTemporaryDir dir;
    ConfigurationManager::setConfigPath(dir.path());

    constexpr int threadCount = 8;
    QVector<ConfigurationManager*> seen(threadCount, nullptr);
    std::atomic<int> waiting {threadCount};
    QVector<QThread*> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.append(QThread::create([&seen, &waiting, i] {
            // Line the threads up so that their first calls overlap.
            --waiting;
            while (waiting.load() > 0) {
                QThread::yieldCurrentThread();
            }
            seen[i] = ConfigurationManager::instance();
        }));
    }
    for (QThread* thread : threads) {
        thread->start();
    }
    for (QThread* thread : threads) {
        QVERIFY(thread->wait(10000));
        delete thread;
    }
    ConfigurationManager* instance = ConfigurationManager::instance();
    QVERIFY(instance);
    QCOMPARE(instance->configPath(), dir.path());
    for (ConfigurationManager* each : seen) {
        QCOMPARE(each, instance);
    }
}

QTEST_GUILESS_MAIN(ConfigurationSingletonTest)
#include "tst_configurationsingleton.moc"
