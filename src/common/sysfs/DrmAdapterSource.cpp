#include "sysfs/DrmAdapterSource.h"

#include "ResultCodes.h"

extern "C" {
#include <pci/pci.h>
}

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <utility>
#include <vector>

namespace Orvanta {
namespace Sysfs {

namespace {

struct DirCloser
{
    void operator()(DIR* dir) const
    {
        ::closedir(dir);
    }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct PciAccessCleanup
{
    void operator()(pci_access* access) const
    {
        pci_cleanup(access);
    }
};
using PciAccess = std::unique_ptr<pci_access, PciAccessCleanup>;

void ignorePciWarning(char*, ...)
{
}

// "card" followed by digits only: connectors ("card0-HDMI-A-1") and render
// nodes are views of the same device.
int cardNumber(const std::string& name)
{
    if (name.size() <= 4 || name.compare(0, 4, "card") != 0) {
        return -1;
    }
    if (!std::all_of(name.begin() + 4, name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return -1;
    }
    return std::atoi(name.c_str() + 4);
}

std::string linkTargetName(const std::string& path)
{
    char buffer[PATH_MAX];
    const ssize_t length = ::readlink(path.c_str(), buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return {};
    }
    const std::string target(buffer, static_cast<std::size_t>(length));
    const std::size_t slash = target.find_last_of('/');
    return slash == std::string::npos ? target : target.substr(slash + 1);
}

bool readHexId(const std::string& path, unsigned int& id)
{
    std::ifstream file(path);
    std::string text;
    if (!(file >> text)) {
        return false;
    }
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 16);
    if (end == text.c_str() || value > 0xFFFFu) {
        return false;
    }
    id = static_cast<unsigned int>(value);
    return true;
}

class DrmAdapterList final : public Ifaces::GraphicsAdapterList
{
public:
    explicit DrmAdapterList(std::vector<Ifaces::GraphicsAdapterDescription> adapters)
        : m_adapters(std::move(adapters))
    {
    }

    long describe(unsigned int index, Ifaces::GraphicsAdapterDescription& description) const override
    {
        if (index >= m_adapters.size()) {
            return DXGI_ERROR_NOT_FOUND;
        }
        description = m_adapters[index];
        return S_OK;
    }

private:
    std::vector<Ifaces::GraphicsAdapterDescription> m_adapters;
};

} // namespace

DrmAdapterSource::DrmAdapterSource(std::string drmClassPath)
    : m_drmClassPath(std::move(drmClassPath))
{
}

std::unique_ptr<Ifaces::GraphicsAdapterList> DrmAdapterSource::open() const
{
    DirHandle dir(::opendir(m_drmClassPath.c_str()));
    if (!dir) {
        return nullptr;
    }
    std::vector<std::pair<int, std::string>> cards;
    while (const dirent* entry = ::readdir(dir.get())) {
        const int number = cardNumber(entry->d_name);
        if (number >= 0) {
            cards.emplace_back(number, entry->d_name);
        }
    }
    std::sort(cards.begin(), cards.end());

    PciAccess pci(pci_alloc());
    if (pci) {
        pci->warning = ignorePciWarning;
    }
    std::vector<Ifaces::GraphicsAdapterDescription> adapters;
    for (const auto& card : cards) {
        const std::string device = m_drmClassPath + '/' + card.second + "/device";
        Ifaces::GraphicsAdapterDescription adapter;
        unsigned int vendorId = 0;
        unsigned int deviceId = 0;
        if (linkTargetName(device + "/subsystem") == "pci" && readHexId(device + "/vendor", vendorId)
            && readHexId(device + "/device", deviceId)) {
            char name[256] = {};
            const char* found = pci ? pci_lookup_name(pci.get(), name, sizeof(name),
                                    PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE, vendorId, deviceId)
                                    : nullptr;
            adapter.description = found ? found : std::string();
        } else {
            adapter.description = linkTargetName(device + "/driver");
            adapter.software = true;
        }
        adapters.push_back(std::move(adapter));
    }
    return std::make_unique<DrmAdapterList>(std::move(adapters));
}

} // namespace Sysfs

const Ifaces::GraphicsAdapterSource& platformGraphicsAdapterSource()
{
    static const Sysfs::DrmAdapterSource source;
    return source;
}

} // namespace Orvanta
