#pragma once

// The capture benchmarks' way to a capturer: a private X server per screen
// size, and the capture context of its first monitor.

#include "DeskCaptureContext.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include <QtCore/QByteArray>
#include <QtCore/QSize>

#include "BenchXServer.h"

#include <benchmark/benchmark.h>

#include <map>
#include <memory>

/// The X server of @p screen ("1920x1080x24"), started at the first call and made $DISPLAY.
inline BenchXServer& serverFor(const QByteArray& screen)
{
    static std::map<QByteArray, std::unique_ptr<BenchXServer>> servers;
    auto& server = servers[screen];
    if (!server) {
        server = std::make_unique<BenchXServer>(screen.toStdString());
    }
    qputenv("DISPLAY", QByteArray::fromStdString(server->display()));
    return *server;
}

/// The capture context of the first monitor of $DISPLAY.
inline bool firstOutput(DeskCaptureContext& context, std::shared_ptr<Orvanta::Ifaces::DisplaySystem>& system)
{
    system = Orvanta::Ifaces::createPlatformDisplaySystem();
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
    if (system->open() < 0 || system->enumAdapter(0, adapter) < 0 || adapter->enumOutput(0, output) < 0) {
        return false;
    }
    adapter->createDevice(output, device);
    Orvanta::Ifaces::OutputDescription description;
    if (output->describe(description) < 0) {
        return false;
    }
    context.monitor = description.monitor;
    context.position = QRect(int(description.left), int(description.top), int(description.right - description.left),
        int(description.bottom - description.top));
    context.width = context.position.width();
    context.height = context.position.height();
    context.adapter = adapter;
    context.output = output;
    context.device = device;
    context.outputIndex = 0;
    return true;
}

/// Binds @p capturer to the first monitor of the X server of @p screen and asks
/// for frames of @p size; false, with @p state skipped, where that fails.
/// @p system keeps the display system alive for the capturer.
template <typename Capturer>
bool bindFirstOutput(benchmark::State& state, Capturer& capturer, const QByteArray& screen, QSize size,
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem>& system)
{
    serverFor(screen);
    DeskCaptureContext context;
    if (!firstOutput(context, system)) {
        state.SkipWithError("no X screen");
        return false;
    }
    if (capturer.setCaptureContext(context) < 0) {
        state.SkipWithError("capturer refused the screen");
        return false;
    }
    capturer.setOutputSize(size);
    return true;
}
