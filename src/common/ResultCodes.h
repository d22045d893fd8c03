#pragma once

// Result codes in the HRESULT convention: a 32-bit value, negative for
// failure, carried in a `long`. On Windows the system headers define them;
// elsewhere the same names are defined here with the same values, so that the
// capture logic and its log texts are identical on every platform. The values
// are sign-extended from 32 bits, as a Windows `long` holds them.

#include <cstdint>

namespace Orvanta {
constexpr long hresultFromBits(std::uint32_t bits)
{
    return static_cast<long>(static_cast<std::int32_t>(bits));
}
} // namespace Orvanta

#ifdef _WIN32
// winerror.h's codes are casts to HRESULT, which windows.h declares; the
// AUDCLNT_ codes live in audioclient.h.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <audioclient.h>
#include <winerror.h>
// Older SDK headers lack the Windows runtime's closed-object code.
#ifndef RO_E_CLOSED
#define RO_E_CLOSED ((long)0x80000013L)
#endif
#else

constexpr long S_OK = 0;
constexpr long S_FALSE = 1;

constexpr long E_NOTIMPL = Orvanta::hresultFromBits(0x80004001u);
constexpr long E_NOINTERFACE = Orvanta::hresultFromBits(0x80004002u);
constexpr long E_POINTER = Orvanta::hresultFromBits(0x80004003u);
constexpr long E_ABORT = Orvanta::hresultFromBits(0x80004004u);
constexpr long E_FAIL = Orvanta::hresultFromBits(0x80004005u);
constexpr long E_UNEXPECTED = Orvanta::hresultFromBits(0x8000FFFFu);
constexpr long E_PENDING = Orvanta::hresultFromBits(0x8000000Au);
constexpr long E_ILLEGAL_METHOD_CALL = Orvanta::hresultFromBits(0x8000000Eu);
constexpr long E_ACCESSDENIED = Orvanta::hresultFromBits(0x80070005u);
constexpr long E_HANDLE = Orvanta::hresultFromBits(0x80070006u);
constexpr long E_OUTOFMEMORY = Orvanta::hresultFromBits(0x8007000Eu);
constexpr long E_INVALIDARG = Orvanta::hresultFromBits(0x80070057u);
constexpr long RPC_E_CHANGED_MODE = Orvanta::hresultFromBits(0x80010106u);
constexpr long REGDB_E_CLASSNOTREG = Orvanta::hresultFromBits(0x80040154u);

constexpr long DXGI_ERROR_INVALID_CALL = Orvanta::hresultFromBits(0x887A0001u);
constexpr long DXGI_ERROR_NOT_FOUND = Orvanta::hresultFromBits(0x887A0002u);
constexpr long DXGI_ERROR_MORE_DATA = Orvanta::hresultFromBits(0x887A0003u);
constexpr long DXGI_ERROR_UNSUPPORTED = Orvanta::hresultFromBits(0x887A0004u);
constexpr long DXGI_ERROR_DEVICE_REMOVED = Orvanta::hresultFromBits(0x887A0005u);
constexpr long DXGI_ERROR_DEVICE_HUNG = Orvanta::hresultFromBits(0x887A0006u);
constexpr long DXGI_ERROR_DEVICE_RESET = Orvanta::hresultFromBits(0x887A0007u);
constexpr long DXGI_ERROR_WAS_STILL_DRAWING = Orvanta::hresultFromBits(0x887A000Au);
constexpr long DXGI_ERROR_DRIVER_INTERNAL_ERROR = Orvanta::hresultFromBits(0x887A0020u);
constexpr long DXGI_ERROR_NONEXCLUSIVE = Orvanta::hresultFromBits(0x887A0021u);
constexpr long DXGI_ERROR_NOT_CURRENTLY_AVAILABLE = Orvanta::hresultFromBits(0x887A0022u);
constexpr long DXGI_ERROR_MODE_CHANGE_IN_PROGRESS = Orvanta::hresultFromBits(0x887A0025u);
constexpr long DXGI_ERROR_ACCESS_LOST = Orvanta::hresultFromBits(0x887A0026u);
constexpr long DXGI_ERROR_WAIT_TIMEOUT = Orvanta::hresultFromBits(0x887A0027u);
constexpr long DXGI_ERROR_SESSION_DISCONNECTED = Orvanta::hresultFromBits(0x887A0028u);
constexpr long DXGI_ERROR_ACCESS_DENIED = Orvanta::hresultFromBits(0x887A002Bu);

constexpr long AUDCLNT_E_NOT_INITIALIZED = Orvanta::hresultFromBits(0x88890001u);
constexpr long AUDCLNT_E_ALREADY_INITIALIZED = Orvanta::hresultFromBits(0x88890002u);
constexpr long AUDCLNT_E_WRONG_ENDPOINT_TYPE = Orvanta::hresultFromBits(0x88890003u);
constexpr long AUDCLNT_E_DEVICE_INVALIDATED = Orvanta::hresultFromBits(0x88890004u);
constexpr long AUDCLNT_E_NOT_STOPPED = Orvanta::hresultFromBits(0x88890005u);
constexpr long AUDCLNT_E_BUFFER_TOO_LARGE = Orvanta::hresultFromBits(0x88890006u);
constexpr long AUDCLNT_E_OUT_OF_ORDER = Orvanta::hresultFromBits(0x88890007u);
constexpr long AUDCLNT_E_UNSUPPORTED_FORMAT = Orvanta::hresultFromBits(0x88890008u);
constexpr long AUDCLNT_E_INVALID_SIZE = Orvanta::hresultFromBits(0x88890009u);
constexpr long AUDCLNT_E_DEVICE_IN_USE = Orvanta::hresultFromBits(0x8889000Au);
constexpr long AUDCLNT_E_BUFFER_OPERATION_PENDING = Orvanta::hresultFromBits(0x8889000Bu);
constexpr long AUDCLNT_E_THREAD_NOT_REGISTERED = Orvanta::hresultFromBits(0x8889000Cu);
constexpr long AUDCLNT_E_EXCLUSIVE_MODE_NOT_ALLOWED = Orvanta::hresultFromBits(0x8889000Eu);
constexpr long AUDCLNT_E_ENDPOINT_CREATE_FAILED = Orvanta::hresultFromBits(0x8889000Fu);
constexpr long AUDCLNT_E_SERVICE_NOT_RUNNING = Orvanta::hresultFromBits(0x88890010u);
constexpr long AUDCLNT_E_BUFFER_ERROR = Orvanta::hresultFromBits(0x88890018u);
constexpr long AUDCLNT_S_BUFFER_EMPTY = 0x08890001;

// Endpoint lookup by identifier (HRESULT_FROM_WIN32(ERROR_NOT_FOUND)).
constexpr long E_NOTFOUND = Orvanta::hresultFromBits(0x80070490u);
// Graphics capture: an object used after it was closed.
constexpr long RO_E_CLOSED = Orvanta::hresultFromBits(0x80000013u);
// The other side of a connection went away, or did not answer in time.
constexpr long RPC_E_DISCONNECTED = Orvanta::hresultFromBits(0x80010108u);
constexpr long RPC_E_TIMEOUT = Orvanta::hresultFromBits(0x8001011Fu);
#endif
