#include "D3D11Scaler.h"

#include "PixelShader.h"
#include "VertexShader.h"
#include "cpu/SoftwareScaler.h"
#include "dxgi/DxgiDisplaySystem.h"
#include "win32/WindowsSdkCompat.h"

#include <wrl/client.h>

using Microsoft::WRL::ComPtr;

namespace Orvanta {
namespace D3D11 {

struct D3D11Scaler::Objects
{
    ComPtr<ID3D11Device> device;
    ComPtr<ID3D11DeviceContext> context;

    ComPtr<ID3D11VertexShader> vertexShader;
    ComPtr<ID3D11PixelShader> pixelShader;
    ComPtr<ID3D11InputLayout> inputLayout;
    ComPtr<ID3D11SamplerState> samplerState;
    ComPtr<ID3D11Buffer> vertexBuffer;
    UINT vertexCount = 0;

    ComPtr<ID3D11Texture2D> targetTexture;
    ComPtr<ID3D11RenderTargetView> renderTargetView;

    // The source of the frame being drawn; uploadedSource only for CPU pixels.
    ComPtr<ID3D11Texture2D> uploadedSource;
    ComPtr<ID3D11ShaderResourceView> sourceView;

    ComPtr<ID3D11Texture2D> staging;
    bool stagingMapped = false;
};

D3D11Scaler::D3D11Scaler(ID3D11Device* device, ID3D11DeviceContext* context)
    : d(std::make_unique<Objects>())
{
    d->device = device;
    d->context = context;
}

D3D11Scaler::~D3D11Scaler()
{
    // A mapping left open by an interrupted caller must not outlive the texture.
    unmapStaging();
}

long D3D11Scaler::createVertexShader()
{
    if (!d->device) {
        return E_POINTER;
    }
    d->vertexShader.Reset();
    return d->device->CreateVertexShader(
        Shaders::kVertexShader, sizeof(Shaders::kVertexShader), nullptr, d->vertexShader.GetAddressOf());
}

long D3D11Scaler::createPixelShader()
{
    if (!d->device) {
        return E_POINTER;
    }
    d->pixelShader.Reset();
    return d->device->CreatePixelShader(
        Shaders::kPixelShader, sizeof(Shaders::kPixelShader), nullptr, d->pixelShader.GetAddressOf());
}

long D3D11Scaler::createInputLayout()
{
    if (!d->device) {
        return E_POINTER;
    }
    // Matches Ifaces::ScalerVertex: x, y, z at offset 0, u, v at offset 12.
    static const D3D11_INPUT_ELEMENT_DESC elements[] = {
        {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 12, D3D11_INPUT_PER_VERTEX_DATA, 0},
    };
    d->inputLayout.Reset();
    return d->device->CreateInputLayout(elements, ARRAYSIZE(elements), Shaders::kVertexShader,
        sizeof(Shaders::kVertexShader), d->inputLayout.GetAddressOf());
}

long D3D11Scaler::createSamplerState(const Ifaces::SamplerDescription& description)
{
    if (!d->device) {
        return E_POINTER;
    }
    D3D11_SAMPLER_DESC sampler = {};
    sampler.Filter = static_cast<D3D11_FILTER>(description.filter);
    sampler.AddressU = static_cast<D3D11_TEXTURE_ADDRESS_MODE>(description.addressU);
    sampler.AddressV = static_cast<D3D11_TEXTURE_ADDRESS_MODE>(description.addressV);
    sampler.AddressW = static_cast<D3D11_TEXTURE_ADDRESS_MODE>(description.addressW);
    sampler.MipLODBias = description.mipLodBias;
    sampler.MaxAnisotropy = description.maxAnisotropy;
    sampler.ComparisonFunc = static_cast<D3D11_COMPARISON_FUNC>(description.comparisonFunc);
    for (int channel = 0; channel < 4; ++channel) {
        sampler.BorderColor[channel] = description.borderColor[channel];
    }
    sampler.MinLOD = description.minLod;
    sampler.MaxLOD = description.maxLod;
    d->samplerState.Reset();
    return d->device->CreateSamplerState(&sampler, d->samplerState.GetAddressOf());
}

long D3D11Scaler::createVertexBuffer(const Ifaces::ScalerVertex* vertices, std::size_t count)
{
    // The old quad goes first: a failure leaves no buffer rather than a stale one.
    d->vertexBuffer.Reset();
    d->vertexCount = 0;
    if (!d->device || vertices == nullptr) {
        return E_POINTER;
    }
    // The buffer's size must fit the description's 32-bit byte width.
    if (count == 0 || count > UINT(-1) / sizeof(Ifaces::ScalerVertex)) {
        return E_INVALIDARG;
    }
    D3D11_BUFFER_DESC description = {};
    description.ByteWidth = static_cast<UINT>(count * sizeof(Ifaces::ScalerVertex));
    description.Usage = D3D11_USAGE_DEFAULT;
    description.BindFlags = D3D11_BIND_VERTEX_BUFFER;
    D3D11_SUBRESOURCE_DATA initialData = {};
    initialData.pSysMem = vertices;
    const HRESULT result = d->device->CreateBuffer(&description, &initialData, d->vertexBuffer.GetAddressOf());
    if (SUCCEEDED(result)) {
        d->vertexCount = static_cast<UINT>(count);
    }
    return result;
}

long D3D11Scaler::createTargetTexture(int width, int height)
{
    d->targetTexture.Reset();
    if (!d->device) {
        return E_POINTER;
    }
    D3D11_TEXTURE2D_DESC description = {};
    // The device refuses 0, and negative sizes, which become huge ones here.
    description.Width = static_cast<UINT>(width);
    description.Height = static_cast<UINT>(height);
    description.MipLevels = 1;
    description.ArraySize = 1;
    description.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    description.SampleDesc.Count = 1;
    description.SampleDesc.Quality = 0;
    description.Usage = D3D11_USAGE_DEFAULT;
    description.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    description.CPUAccessFlags = 0;
    description.MiscFlags = 0;
    return d->device->CreateTexture2D(&description, nullptr, d->targetTexture.GetAddressOf());
}

long D3D11Scaler::createRenderTargetView()
{
    d->renderTargetView.Reset();
    if (!d->device || !d->targetTexture) {
        return E_POINTER;
    }
    return d->device->CreateRenderTargetView(d->targetTexture.Get(), nullptr, d->renderTargetView.GetAddressOf());
}

void D3D11Scaler::bindRenderTarget(int width, int height)
{
    if (!d->context) {
        return;
    }
    ID3D11RenderTargetView* views[] = {d->renderTargetView.Get()};
    d->context->OMSetRenderTargets(1, views, nullptr);
    D3D11_VIEWPORT viewport = {};
    viewport.TopLeftX = 0.0f;
    viewport.TopLeftY = 0.0f;
    viewport.Width = static_cast<float>(width);
    viewport.Height = static_cast<float>(height);
    viewport.MinDepth = 0.0f;
    viewport.MaxDepth = 1.0f;
    d->context->RSSetViewports(1, &viewport);
}

long D3D11Scaler::createSourceView(const Ifaces::ScalerSource& source)
{
    releaseSourceView();
    if (!d->device) {
        return E_POINTER;
    }
    ID3D11Texture2D* texture = static_cast<ID3D11Texture2D*>(source.nativeTexture);
    if (texture == nullptr) {
        if (source.pixels == nullptr) {
            return E_POINTER;
        }
        if (source.width <= 0 || source.height <= 0 || Ifaces::bytesPerPixel(source.format) == 0
            || source.bytesPerLine < static_cast<std::size_t>(source.width) * Ifaces::bytesPerPixel(source.format)) {
            return E_INVALIDARG;
        }
        // The layouts carry their DXGI_FORMAT numbers.
        D3D11_TEXTURE2D_DESC description = {};
        description.Width = static_cast<UINT>(source.width);
        description.Height = static_cast<UINT>(source.height);
        description.MipLevels = 1;
        description.ArraySize = 1;
        description.Format = static_cast<DXGI_FORMAT>(source.format);
        description.SampleDesc.Count = 1;
        description.Usage = D3D11_USAGE_IMMUTABLE;
        description.BindFlags = D3D11_BIND_SHADER_RESOURCE;
        D3D11_SUBRESOURCE_DATA initialData = {};
        initialData.pSysMem = source.pixels;
        initialData.SysMemPitch = static_cast<UINT>(source.bytesPerLine);
        const HRESULT result = d->device->CreateTexture2D(&description, &initialData, d->uploadedSource.GetAddressOf());
        if (FAILED(result)) {
            return result;
        }
        texture = d->uploadedSource.Get();
    }
    // No description: the view takes the texture's own format.
    const HRESULT result = d->device->CreateShaderResourceView(texture, nullptr, d->sourceView.GetAddressOf());
    if (FAILED(result)) {
        d->uploadedSource.Reset();
    }
    return result;
}

void D3D11Scaler::draw()
{
    if (!d->context) {
        return;
    }
    ID3D11DeviceContext* context = d->context.Get();
    const FLOAT blendFactor[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    context->OMSetBlendState(nullptr, blendFactor, 0xFFFFFFFF);
    context->VSSetShader(d->vertexShader.Get(), nullptr, 0);
    context->PSSetShader(d->pixelShader.Get(), nullptr, 0);
    ID3D11ShaderResourceView* views[] = {d->sourceView.Get()};
    context->PSSetShaderResources(0, 1, views);
    ID3D11SamplerState* samplers[] = {d->samplerState.Get()};
    context->PSSetSamplers(0, 1, samplers);
    context->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
    ID3D11Buffer* buffers[] = {d->vertexBuffer.Get()};
    const UINT stride = sizeof(Ifaces::ScalerVertex);
    const UINT offset = 0;
    context->IASetVertexBuffers(0, 1, buffers, &stride, &offset);
    context->IASetInputLayout(d->inputLayout.Get());
    context->Draw(d->vertexCount, 0);
    context->Flush();
}

void D3D11Scaler::releaseSourceView()
{
    d->sourceView.Reset();
    d->uploadedSource.Reset();
}

void* D3D11Scaler::nativeTarget() const
{
    return d->targetTexture.Get();
}

long D3D11Scaler::createStagingTexture()
{
    unmapStaging();
    d->staging.Reset();
    if (!d->device || !d->targetTexture) {
        return E_POINTER;
    }
    D3D11_TEXTURE2D_DESC description = {};
    d->targetTexture->GetDesc(&description);
    description.Usage = D3D11_USAGE_STAGING;
    description.BindFlags = 0;
    description.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    description.MiscFlags = 0;
    return d->device->CreateTexture2D(&description, nullptr, d->staging.GetAddressOf());
}

void D3D11Scaler::copyTargetToStaging()
{
    if (d->context && d->staging && d->targetTexture) {
        d->context->CopyResource(d->staging.Get(), d->targetTexture.Get());
    }
}

long D3D11Scaler::mapStaging(Ifaces::MappedImage& image)
{
    image = Ifaces::MappedImage();
    if (!d->context || !d->staging) {
        return E_POINTER;
    }
    unmapStaging();
    // Without flags Map waits for the GPU, so the image is complete on return.
    D3D11_MAPPED_SUBRESOURCE mapped = {};
    const HRESULT result = d->context->Map(d->staging.Get(), 0, D3D11_MAP_READ, 0, &mapped);
    if (FAILED(result)) {
        return result;
    }
    d->stagingMapped = true;
    image.data = static_cast<const std::uint8_t*>(mapped.pData);
    image.rowPitch = mapped.RowPitch;
    return result;
}

void D3D11Scaler::unmapStaging()
{
    if (d->stagingMapped && d->context && d->staging) {
        d->context->Unmap(d->staging.Get(), 0);
    }
    d->stagingMapped = false;
}

void D3D11Scaler::releaseStaging()
{
    unmapStaging();
    d->staging.Reset();
}

} // namespace D3D11

std::shared_ptr<Ifaces::GpuScaler> Ifaces::createPlatformGpuScaler(const std::shared_ptr<GraphicsDevice>& device)
{
    const auto dxgiDevice = std::dynamic_pointer_cast<Dxgi::DxgiGraphicsDevice>(device);
    if (dxgiDevice && dxgiDevice->get()) {
        // The output's device was made without keeping its immediate context;
        // the scaler draws on that one context.
        ComPtr<ID3D11DeviceContext> context;
        dxgiDevice->get()->GetImmediateContext(&context);
        if (context) {
            return std::make_shared<D3D11::D3D11Scaler>(dxgiDevice->get(), context.Get());
        }
    }
    // No Direct3D device for this output: the same drawing on the CPU.
    return std::make_shared<Cpu::SoftwareScaler>();
}

} // namespace Orvanta
