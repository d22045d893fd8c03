#pragma once

#include "ResultCodes.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include <memory>
#include <string>
#include <vector>

namespace Fakes {

using Orvanta::Ifaces::OutputRotation;

/// A device that only exists; the tests look at whether a row has one.
class FakeDevice : public Orvanta::Ifaces::GraphicsDevice
{
};

/// What one output answers; a test may change it while the output is in use.
struct OutputScript
{
    std::wstring deviceName;
    long left = 0;
    long top = 0;
    long right = 0;
    long bottom = 0;
    std::uintptr_t monitor = 0;
    OutputRotation rotation = OutputRotation::Identity;
    long enumResult = S_OK;
    long describeResult = S_OK;
    long deviceResult = S_OK;
};

class FakeOutput : public Orvanta::Ifaces::DisplayOutput
{
public:
    explicit FakeOutput(std::shared_ptr<OutputScript> script)
        : script(std::move(script))
    {
    }

    long describe(Orvanta::Ifaces::OutputDescription& description) const override
    {
        if (script->describeResult < 0)
            return script->describeResult;
        description.deviceName = script->deviceName;
        description.left = script->left;
        description.top = script->top;
        description.right = script->right;
        description.bottom = script->bottom;
        description.monitor = script->monitor;
        description.rotation = script->rotation;
        return S_OK;
    }

    std::shared_ptr<OutputScript> script;
};

class FakeAdapter : public Orvanta::Ifaces::DisplayAdapter
{
public:
    explicit FakeAdapter(std::wstring name = L"Fake GPU")
        : name(std::move(name))
    {
    }

    std::shared_ptr<OutputScript> addOutput(
        const std::wstring& deviceName, long left, long top, long width, long height, std::uintptr_t monitor)
    {
        auto script = std::make_shared<OutputScript>();
        script->deviceName = deviceName;
        script->left = left;
        script->top = top;
        script->right = left + width;
        script->bottom = top + height;
        script->monitor = monitor;
        outputs.push_back(script);
        return script;
    }

    std::wstring description() const override
    {
        return name;
    }

    long enumOutput(unsigned int index, std::shared_ptr<Orvanta::Ifaces::DisplayOutput>& output) override
    {
        ++enumCalls;
        if (index >= outputs.size())
            return DXGI_ERROR_NOT_FOUND;
        if (outputs[index]->enumResult < 0)
            return outputs[index]->enumResult;
        output = std::make_shared<FakeOutput>(outputs[index]);
        return S_OK;
    }

    long createDevice(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>& output,
        std::shared_ptr<Orvanta::Ifaces::GraphicsDevice>& device) override
    {
        const auto* fake = static_cast<const FakeOutput*>(output.get());
        if (fake->script->deviceResult < 0)
            return fake->script->deviceResult;
        device = std::make_shared<FakeDevice>();
        return S_OK;
    }

    std::wstring name;
    std::vector<std::shared_ptr<OutputScript>> outputs;
    int enumCalls = 0;
};

class FakeDisplaySystem : public Orvanta::Ifaces::DisplaySystem
{
public:
    struct AdapterSlot
    {
        long result = S_OK;
        std::shared_ptr<FakeAdapter> adapter;
    };

    std::shared_ptr<FakeAdapter> addAdapter(const std::wstring& name = L"Fake GPU")
    {
        auto adapter = std::make_shared<FakeAdapter>(name);
        adapters.push_back({S_OK, adapter});
        return adapter;
    }

    void addFailingAdapter(long result)
    {
        adapters.push_back({result, nullptr});
    }

    bool hasAdministratorRights() const override
    {
        return admin;
    }

    long open() override
    {
        return openResult;
    }

    long enumAdapter(unsigned int index, std::shared_ptr<Orvanta::Ifaces::DisplayAdapter>& adapter) override
    {
        ++enumAdapterCalls;
        if (index >= adapters.size())
            return endResult;
        if (adapters[index].result < 0)
            return adapters[index].result;
        adapter = adapters[index].adapter;
        return S_OK;
    }

    bool devicesOptional() const override
    {
        return optionalDevices;
    }

    bool admin = true;
    long openResult = S_OK;
    /// What comes past the last adapter; a platform that never says "not found" sets something else.
    long endResult = DXGI_ERROR_NOT_FOUND;
    bool optionalDevices = false;
    int enumAdapterCalls = 0;
    std::vector<AdapterSlot> adapters;
};

} // namespace Fakes
