#pragma once

#include "ifaces/GpuScaler.h"

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <cstdint>
#include <vector>

/**
 * A GpuScaler that records every call by name and answers with scripted
 * results. Its target is a plain buffer the test fills; the read-back pitch
 * can be made wider than a row.
 */
class FakeGpuScaler : public Orvanta::Ifaces::GpuScaler
{
public:
    QStringList calls;
    QMap<QString, long> results; ///< result per operation name; S_OK when absent
    std::vector<Orvanta::Ifaces::ScalerVertex> vertices;
    Orvanta::Ifaces::SamplerDescription sampler;
    Orvanta::Ifaces::ScalerSource lastSource;
    int targetWidth = 0;
    int targetHeight = 0;
    int boundWidth = 0;
    int boundHeight = 0;
    std::size_t extraPitch = 0; ///< bytes after each row in the mapped image
    bool mapNull = false;
    std::vector<std::uint8_t> mapped;
    int stagingAlive = 0;

    long result(const QString& name)
    {
        calls << name;
        return results.value(name, 0);
    }

    long createVertexShader() override
    {
        return result(QStringLiteral("createVertexShader"));
    }
    long createPixelShader() override
    {
        return result(QStringLiteral("createPixelShader"));
    }
    long createInputLayout() override
    {
        return result(QStringLiteral("createInputLayout"));
    }
    long createSamplerState(const Orvanta::Ifaces::SamplerDescription& description) override
    {
        sampler = description;
        return result(QStringLiteral("createSamplerState"));
    }
    long createVertexBuffer(const Orvanta::Ifaces::ScalerVertex* data, std::size_t count) override
    {
        const long r = result(QStringLiteral("createVertexBuffer"));
        if (r >= 0) {
            vertices.assign(data, data + count);
        } else {
            vertices.clear();
        }
        return r;
    }
    long createTargetTexture(int width, int height) override
    {
        const long r = result(QStringLiteral("createTargetTexture"));
        if (r >= 0) {
            targetWidth = width;
            targetHeight = height;
        }
        return r;
    }
    long createRenderTargetView() override
    {
        return result(QStringLiteral("createRenderTargetView"));
    }
    void bindRenderTarget(int width, int height) override
    {
        calls << QStringLiteral("bindRenderTarget");
        boundWidth = width;
        boundHeight = height;
    }
    long createSourceView(const Orvanta::Ifaces::ScalerSource& source) override
    {
        lastSource = source;
        return result(QStringLiteral("createSourceView"));
    }
    void draw() override
    {
        calls << QStringLiteral("draw");
    }
    void releaseSourceView() override
    {
        calls << QStringLiteral("releaseSourceView");
    }
    void* nativeTarget() const override
    {
        return targetWidth > 0 ? const_cast<FakeGpuScaler*>(this) : nullptr;
    }
    long createStagingTexture() override
    {
        const long r = result(QStringLiteral("createStagingTexture"));
        if (r >= 0) {
            ++stagingAlive;
        }
        return r;
    }
    void copyTargetToStaging() override
    {
        calls << QStringLiteral("copyTargetToStaging");
    }
    long mapStaging(Orvanta::Ifaces::MappedImage& image) override
    {
        const long r = result(QStringLiteral("mapStaging"));
        if (r < 0) {
            return r;
        }
        // Each pixel holds its column, row, the row again and 0xEE; the
        // padding after a row is 0xAB so that copying it would show.
        const std::size_t pitch = std::size_t(targetWidth) * 4 + extraPitch;
        mapped.assign(pitch * std::size_t(targetHeight), 0xAB);
        for (int y = 0; y < targetHeight; ++y) {
            for (int x = 0; x < targetWidth; ++x) {
                std::uint8_t* p = mapped.data() + pitch * y + x * 4;
                p[0] = std::uint8_t(x);
                p[1] = std::uint8_t(y);
                p[2] = std::uint8_t(y);
                p[3] = 0xEE;
            }
        }
        image.data = mapNull ? nullptr : mapped.data();
        image.rowPitch = pitch;
        return r;
    }
    void unmapStaging() override
    {
        calls << QStringLiteral("unmapStaging");
    }
    void releaseStaging() override
    {
        calls << QStringLiteral("releaseStaging");
        --stagingAlive;
    }
};
