#include "MessageTableErrorTextSource.h"

#include "ResultCodes.h"

namespace Orvanta {
namespace MessageTable {

namespace {

struct Entry
{
    long code;
    const wchar_t* text;
};

// clang-format off
constexpr Entry kMessages[] = {
    {E_NOTIMPL, L"Not implemented"},
    {E_NOINTERFACE, L"No such interface supported"},
    {E_POINTER, L"Invalid pointer"},
    {E_ABORT, L"Operation aborted"},
    {E_FAIL, L"Unspecified error"},
    {E_UNEXPECTED, L"Catastrophic failure"},
    {E_PENDING, L"The data necessary to complete this operation is not yet available."},
    {E_ILLEGAL_METHOD_CALL, L"A method was called at an unexpected time."},
    {E_ACCESSDENIED, L"Access is denied."},
    {E_HANDLE, L"The handle is invalid."},
    {E_OUTOFMEMORY, L"Not enough memory resources are available to complete this operation."},
    {E_INVALIDARG, L"The parameter is incorrect."},
    {RPC_E_CHANGED_MODE, L"Cannot change thread mode after it is set."},
    {REGDB_E_CLASSNOTREG, L"Class not registered"},

    {DXGI_ERROR_INVALID_CALL, L"The application made a call that is invalid."},
    {DXGI_ERROR_NOT_FOUND, L"The object was not found."},
    {DXGI_ERROR_MORE_DATA, L"The caller did not supply a sufficiently large buffer."},
    {DXGI_ERROR_UNSUPPORTED, L"The specified device interface or feature level is not supported on this system."},
    {DXGI_ERROR_DEVICE_REMOVED, L"The GPU device instance has been suspended."},
    {DXGI_ERROR_DEVICE_HUNG, L"The GPU will not respond to more commands."},
    {DXGI_ERROR_DEVICE_RESET, L"The GPU will not respond to more commands, because of an invalid command."},
    {DXGI_ERROR_WAS_STILL_DRAWING, L"The GPU was busy at the moment when the call was made, and the call was neither executed nor scheduled."},
    {DXGI_ERROR_DRIVER_INTERNAL_ERROR, L"An internal issue prevented the driver from carrying out the specified operation."},
    {DXGI_ERROR_NONEXCLUSIVE, L"A global counter resource was in use, and the specified counter cannot be used by this Direct3D device at this time."},
    {DXGI_ERROR_NOT_CURRENTLY_AVAILABLE, L"The resource or request is not currently available, but it might become available later."},
    {DXGI_ERROR_MODE_CHANGE_IN_PROGRESS, L"The requested functionality is not supported by the device or the driver."},
    {DXGI_ERROR_ACCESS_LOST, L"The desktop duplication interface is invalid. The desktop duplication interface typically becomes invalid when a different type of image is displayed on the desktop."},
    {DXGI_ERROR_WAIT_TIMEOUT, L"The time-out interval elapsed before the next desktop frame was available."},
    {DXGI_ERROR_SESSION_DISCONNECTED, L"The Remote Desktop Services session is currently disconnected."},
    {DXGI_ERROR_ACCESS_DENIED, L"You tried to use a resource to which you did not have the required access privileges."},

    {AUDCLNT_E_NOT_INITIALIZED, L"The audio stream has not been successfully initialized."},
    {AUDCLNT_E_ALREADY_INITIALIZED, L"The audio stream has already been initialized."},
    {AUDCLNT_E_WRONG_ENDPOINT_TYPE, L"The audio endpoint device does not support this operation."},
    {AUDCLNT_E_DEVICE_INVALIDATED, L"The audio endpoint device has been unplugged, or the audio hardware or associated hardware resources have been reconfigured, disabled, removed, or otherwise made unavailable for use."},
    {AUDCLNT_E_NOT_STOPPED, L"The audio stream was not stopped at the time of the Start call."},
    {AUDCLNT_E_BUFFER_TOO_LARGE, L"The requested buffer size is too large."},
    {AUDCLNT_E_OUT_OF_ORDER, L"A previous GetBuffer call is still in effect."},
    {AUDCLNT_E_UNSUPPORTED_FORMAT, L"The audio engine (shared mode) or audio endpoint device (exclusive mode) does not support the specified format."},
    {AUDCLNT_E_INVALID_SIZE, L"The requested buffer size is not valid."},
    {AUDCLNT_E_DEVICE_IN_USE, L"The endpoint device is already in use."},
    {AUDCLNT_E_BUFFER_OPERATION_PENDING, L"A resource associated with the audio stream is no longer valid."},
    {AUDCLNT_E_THREAD_NOT_REGISTERED, L"The thread is not registered."},
    {AUDCLNT_E_EXCLUSIVE_MODE_NOT_ALLOWED, L"Exclusive mode is disabled on the endpoint device."},
    {AUDCLNT_E_ENDPOINT_CREATE_FAILED, L"The endpoint device could not be initialized."},
    {AUDCLNT_E_SERVICE_NOT_RUNNING, L"The Windows audio service is not running."},
    {AUDCLNT_E_BUFFER_ERROR, L"The audio buffer could not be obtained."},

    {E_NOTFOUND, L"Element not found."},
};
// clang-format on

} // namespace

std::wstring ErrorTextSource::systemMessage(long code) const
{
    for (const Entry& entry : kMessages) {
        if (entry.code == code) {
            return entry.text;
        }
    }
    return {};
}

} // namespace MessageTable

const Ifaces::ErrorTextSource& platformErrorTextSource()
{
    static const MessageTable::ErrorTextSource source;
    return source;
}

} // namespace Orvanta
