#include "fsguards.h"

#include <QFile>

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr unsigned kDacBits = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);

bool capabilities(__user_cap_data_struct (&data)[2])
{
    __user_cap_header_struct header {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, data) == 0;
}

bool setCapabilities(__user_cap_data_struct (&data)[2])
{
    __user_cap_header_struct header {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &header, data) == 0;
}

} // namespace

int fileMode(const QString &path)
{
    struct stat info {
    };
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 0777);
}

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QByteArray bytes = file.readAll();
    if (bytes.isNull())
        bytes = QByteArray("");
    return bytes;
}

ScopedPermissionChecks::ScopedPermissionChecks()
{
    __user_cap_data_struct data[2] {};
    if (!capabilities(data) || !(data[0].effective & kDacBits))
        return;
    data[0].effective &= ~kDacBits;
    m_dropped = setCapabilities(data);
}

ScopedPermissionChecks::~ScopedPermissionChecks()
{
    if (!m_dropped)
        return;
    __user_cap_data_struct data[2] {};
    if (!capabilities(data))
        return;
    data[0].effective |= kDacBits & data[0].permitted;
    setCapabilities(data);
}
