#include "ConfigurationManager.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QMutex>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

// Readers, writers, savers and first loads on several documents at once, for
// a bounded time: ORVANTA_CONFIG_STRESS_MS milliseconds (2000 unless set).
// Every reader checks that what it sees is a state some writer made whole.

namespace {

constexpr int effectCount = 3;

// Messages of the first loads (files that do not exist) are counted, not
// printed: there are thousands of them.
std::atomic<int> s_messages {0};

void countingHandler(QtMsgType, const QMessageLogContext&, const QString&)
{
    ++s_messages;
}

void writeFile(const QString& path, const QJsonObject& object)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(QJsonDocument(object).toJson());
}

QJsonObject pair(int value)
{
    return QJsonObject {{QStringLiteral("a"), value}, {QStringLiteral("b"), value}};
}

bool isWholePair(const QJsonValue& value)
{
    const QJsonObject object = value.toObject();
    return object.size() == 2 && object.value(QStringLiteral("a")).toInt(-1) >= 0
        && object.value(QStringLiteral("a")) == object.value(QStringLiteral("b"));
}

QString effectName(int index)
{
    // A dot, so that every access goes through the name rewrite.
    return QStringLiteral("stress.effect%1").arg(index);
}

/// Collects the first few failures of all threads.
class Failures
{
public:
    void add(const QString& text)
    {
        ++m_count;
        const QMutexLocker lock(&m_mutex);
        if (m_texts.size() < 10) {
            m_texts << text;
        }
    }
    int count() const
    {
        return m_count;
    }
    QString text() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_texts.join(QLatin1Char('\n'));
    }

private:
    std::atomic<int> m_count {0};
    mutable QMutex m_mutex;
    QStringList m_texts;
};

} // namespace

class ConfigStressTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void readersWritersSaversAndFirstLoads();
};

void ConfigStressTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
}

void ConfigStressTest::readersWritersSaversAndFirstLoads()
{
    bool ok = false;
    int durationMs = qEnvironmentVariableIntValue("ORVANTA_CONFIG_STRESS_MS", &ok);
    if (!ok || durationMs <= 0) {
        durationMs = 2000;
    }
    durationMs = qMin(durationMs, 60000);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString configDir = dir.filePath(QStringLiteral("config"));
    QVERIFY(QDir().mkpath(configDir));
    writeFile(configDir + QStringLiteral("/global.json"),
        QJsonObject {{QStringLiteral("devUpdateInterval"), 40}, {QStringLiteral("pair"), pair(0)}});
    for (int e = 0; e < effectCount; ++e) {
        QString file = effectName(e);
        file.replace(QLatin1Char('.'), QLatin1Char('_'));
        writeFile(configDir + QStringLiteral("/effects/") + file + QStringLiteral(".json"),
            QJsonObject {{QStringLiteral("pair"), pair(0)}});
    }

    ConfigurationManager::setConfigPath(configDir);
    auto manager = std::make_unique<ConfigurationManager>();
    ConfigurationManager::setConfigPath(QString());
    ConfigurationManager* store = manager.get();

    // A save of a document never read writes it empty, by design; the
    // documents that the savers name are read before they start. The first
    // loads run on documents of their own.
    QCOMPARE(store->appConfig(QStringLiteral("devUpdateInterval")).toInt(33), 40);
    for (int e = 0; e < effectCount; ++e) {
        QVERIFY(isWholePair(store->effectJsonValue(effectName(e), QStringLiteral("pair"), QString())));
    }

    const QtMessageHandler previous = qInstallMessageHandler(countingHandler);
    std::atomic<bool> stop {false};
    Failures failures;
    std::atomic<int> reads {0};
    std::atomic<int> writes {0};
    std::atomic<int> saves {0};
    std::atomic<int> firstLoads {0};

    std::vector<std::function<void()>> work;
    // Readers: the global document and every effect document.
    for (int r = 0; r < 2; ++r) {
        work.emplace_back([&, r] {
            for (int n = 0; !stop; ++n) {
                if (store->appConfig(QStringLiteral("devUpdateInterval")).toInt(33) != 40) {
                    failures.add(QStringLiteral("devUpdateInterval lost"));
                }
                const QJsonValue global = store->globalValue(QStringLiteral("pair"));
                if (!isWholePair(global)) {
                    failures.add(QStringLiteral("global pair torn: ") + QJsonDocument(global.toObject()).toJson());
                }
                const QString effect = effectName((n + r) % effectCount);
                const QJsonValue section = store->effectJsonValue(effect, QStringLiteral("pair"), QString());
                if (!isWholePair(section)) {
                    failures.add(QStringLiteral("effect pair torn: ") + QJsonDocument(section.toObject()).toJson());
                }
                store->effectVariant(effect, QStringLiteral("counter"), QStringLiteral("value"));
                ++reads;
            }
        });
    }
    // Writers: whole pairs, many keys, nested paths and effect sections.
    for (int w = 0; w < 2; ++w) {
        work.emplace_back([&, w] {
            for (int n = 1; !stop; ++n) {
                store->setGlobalValue(QStringLiteral("pair"), pair(n));
                store->setGlobalValue(QStringLiteral("writer%1.key%2").arg(w).arg(n % 64), n);
                store->setGlobalValue(QStringList {QStringLiteral("list"), QStringLiteral("w%1").arg(w)}, n);
                const QString effect = effectName(n % effectCount);
                store->setEffectJsonValue(effect, QStringLiteral("pair"), QString(), pair(n));
                store->setEffectVariant(effect, QStringLiteral("counter"), QStringLiteral("value"), n);
                ++writes;
            }
        });
    }
    // A saver of everything and of single documents.
    work.emplace_back([&] {
        for (int n = 0; !stop; ++n) {
            switch (n % 3) {
            case 0:
                store->save();
                break;
            case 1:
                store->saveGlobalValues();
                break;
            default:
                store->saveEffectJsonObj(effectName(n % effectCount));
                break;
            }
            ++saves;
        }
    });
    // First loads: new documents, some with a file and some without, read
    // while the others change the cache around them.
    work.emplace_back([&] {
        for (int n = 0; !stop; ++n) {
            const QString name = QStringLiteral("fresh%1").arg(n);
            if (n % 2 == 0) {
                writeFile(configDir + QStringLiteral("/controllers/") + name + QStringLiteral(".json"),
                    QJsonObject {{QStringLiteral("n"), n}});
                if (store->controllerJsonObj(name).value(QStringLiteral("n")).toInt(-1) != n) {
                    failures.add(QStringLiteral("controller %1 not loaded").arg(name));
                }
            } else {
                store->effectJsonValue(name, QStringLiteral("section"), QStringLiteral("key"));
            }
            ++firstLoads;
        }
    });

    std::atomic<int> waiting {int(work.size())};
    std::vector<std::thread> threads;
    for (auto& each : work) {
        threads.emplace_back([&waiting, &each] {
            --waiting;
            while (waiting.load() > 0) {
                std::this_thread::yield();
            }
            each();
        });
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < durationMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    qInstallMessageHandler(previous);

    qInfo("%d reads, %d writes, %d saves, %d first loads, %d messages in %d ms", reads.load(), writes.load(),
        saves.load(), firstLoads.load(), s_messages.load(), durationMs);
    QVERIFY2(failures.count() == 0, qPrintable(failures.text()));
    QVERIFY(reads > 0 && writes > 0 && saves > 0 && firstLoads > 0);

    // What is on disk after a last save is a whole state as well.
    store->save();
    const QJsonValue last = store->globalValue(QStringLiteral("pair"));
    QVERIFY(isWholePair(last));
    manager.reset();
    ConfigurationManager::setConfigPath(configDir);
    ConfigurationManager reloaded;
    ConfigurationManager::setConfigPath(QString());
    QCOMPARE(reloaded.globalValue(QStringLiteral("pair")), last);
    QCOMPARE(reloaded.appConfig(QStringLiteral("devUpdateInterval")).toInt(33), 40);
    for (int e = 0; e < effectCount; ++e) {
        QVERIFY(isWholePair(reloaded.effectJsonValue(effectName(e), QStringLiteral("pair"), QString())));
    }
}

QTEST_GUILESS_MAIN(ConfigStressTest)
#include "tst_configstress.moc"
