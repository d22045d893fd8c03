// Configuration store: dotted-path access and whole-document load and save,
// each against the plain Qt code a caller would otherwise write.
#include "ConfigurationManager.h"

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QSaveFile>
#include <QtCore/QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

QJsonObject nestedObject()
{
    QJsonObject e {{QStringLiteral("value"), 42}, {QStringLiteral("other"), QStringLiteral("x")}};
    QJsonObject d {{QStringLiteral("e"), e}, {QStringLiteral("sibling"), 1}};
    QJsonObject c {{QStringLiteral("d"), d}};
    QJsonObject b {{QStringLiteral("c"), c}};
    return QJsonObject {{QStringLiteral("a"), QJsonObject {{QStringLiteral("b"), b}}}};
}

// About one megabyte of settings-like JSON.
QJsonObject megabyteDocument()
{
    QJsonObject root;
    for (int section = 0; section < 200; ++section) {
        QJsonObject values;
        for (int key = 0; key < 40; ++key) {
            values.insert(QStringLiteral("key%1").arg(key),
                QJsonArray {key, QStringLiteral("colour-%1-%2").arg(section).arg(key), key * 0.5, true});
        }
        root.insert(QStringLiteral("section%1").arg(section), values);
    }
    return root;
}

void PathReadDepth5_ours(benchmark::State& state)
{
    const QJsonObject object = nestedObject();
    const QString path = QStringLiteral("a.b.c.d.e");
    for (auto _ : state) {
        benchmark::DoNotOptimize(ConfigurationManager::valWithXPath(object, path));
    }
}

void PathReadDepth5_reference(benchmark::State& state)
{
    const QJsonObject object = nestedObject();
    for (auto _ : state) {
        const QJsonValue value = object.value(QLatin1String("a"))
                                     .toObject()
                                     .value(QLatin1String("b"))
                                     .toObject()
                                     .value(QLatin1String("c"))
                                     .toObject()
                                     .value(QLatin1String("d"))
                                     .toObject()
                                     .value(QLatin1String("e"));
        benchmark::DoNotOptimize(value);
    }
}

void PathWriteDepth5_ours(benchmark::State& state)
{
    QJsonObject object = nestedObject();
    const QString path = QStringLiteral("a.b.c.d.e");
    int counter = 0;
    for (auto _ : state) {
        ConfigurationManager::setValWithXPath(object, path, QJsonValue(++counter));
    }
    benchmark::DoNotOptimize(object);
}

void PathWriteDepth5_reference(benchmark::State& state)
{
    QJsonObject object = nestedObject();
    int counter = 0;
    for (auto _ : state) {
        QJsonObject a = object.value(QLatin1String("a")).toObject();
        QJsonObject b = a.value(QLatin1String("b")).toObject();
        QJsonObject c = b.value(QLatin1String("c")).toObject();
        QJsonObject d = c.value(QLatin1String("d")).toObject();
        d.insert(QStringLiteral("e"), ++counter);
        c.insert(QStringLiteral("d"), d);
        b.insert(QStringLiteral("c"), c);
        a.insert(QStringLiteral("b"), b);
        object.insert(QStringLiteral("a"), a);
    }
    benchmark::DoNotOptimize(object);
}

struct DocumentFixture
{
    QTemporaryDir dir;
    QByteArray bytes = QJsonDocument(megabyteDocument()).toJson();

    DocumentFixture()
    {
        ConfigurationManager::setConfigPath(dir.path());
        QFile file(dir.path() + QStringLiteral("/controllers/big.json"));
        QDir().mkpath(dir.path() + QStringLiteral("/controllers"));
        file.open(QIODevice::WriteOnly);
        file.write(bytes);
    }
};

void DocumentLoad1MB_ours(benchmark::State& state)
{
    DocumentFixture fixture;
    for (auto _ : state) {
        ConfigurationManager manager;
        benchmark::DoNotOptimize(manager.controllerJsonObj(QStringLiteral("big")).size());
    }
    state.SetBytesProcessed(state.iterations() * fixture.bytes.size());
}

void DocumentLoad1MB_reference(benchmark::State& state)
{
    DocumentFixture fixture;
    const QString path = fixture.dir.path() + QStringLiteral("/controllers/big.json");
    for (auto _ : state) {
        QFile file(path);
        file.open(QIODevice::ReadOnly | QIODevice::Text);
        benchmark::DoNotOptimize(QJsonDocument::fromJson(file.readAll()).object().size());
    }
    state.SetBytesProcessed(state.iterations() * fixture.bytes.size());
}

void DocumentSave1MB_ours(benchmark::State& state)
{
    DocumentFixture fixture;
    ConfigurationManager manager;
    manager.controllerJsonObj(QStringLiteral("big"));
    for (auto _ : state) {
        manager.saveControllerJsonObj(QStringLiteral("big"));
    }
    state.SetBytesProcessed(state.iterations() * fixture.bytes.size());
}

void DocumentSave1MB_reference(benchmark::State& state)
{
    DocumentFixture fixture;
    const QJsonObject document = megabyteDocument();
    const QString path = fixture.dir.path() + QStringLiteral("/controllers/big.json");
    for (auto _ : state) {
        QSaveFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(document).toJson());
        file.commit();
    }
    state.SetBytesProcessed(state.iterations() * fixture.bytes.size());
}

} // namespace

BENCHMARK(PathReadDepth5_ours)->Name("PathReadDepth5/ours");
BENCHMARK(PathReadDepth5_reference)->Name("PathReadDepth5/reference");
BENCHMARK(PathWriteDepth5_ours)->Name("PathWriteDepth5/ours");
BENCHMARK(PathWriteDepth5_reference)->Name("PathWriteDepth5/reference");
BENCHMARK(DocumentLoad1MB_ours)->Name("DocumentLoad1MB/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(DocumentLoad1MB_reference)->Name("DocumentLoad1MB/reference")->Unit(benchmark::kMillisecond);
BENCHMARK(DocumentSave1MB_ours)->Name("DocumentSave1MB/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(DocumentSave1MB_reference)->Name("DocumentSave1MB/reference")->Unit(benchmark::kMillisecond);
