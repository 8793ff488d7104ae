#include <Corvane/DefaultStorDev.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Fundel/LogDefs.h"
#include "Platform/File.h"

namespace Qelvar::Corvane {

namespace {

// Paths longer than the record's 255 characters are cut, here and in NFile_Info.
void copy_path(char (&to)[256], const char* from)
{
    std::size_t n = 0;
    for (; n < sizeof to - 1 && from[n] != '\0'; ++n) to[n] = from[n];
    to[n] = '\0';
}

}  // namespace

CDefaultStorDev::~CDefaultStorDev()
{
    if (m_file) std::fclose(m_file);
}

int CDefaultStorDev::Open(const char* path, const char* mode)
{
    if (!path || !mode) {
        CVN_LOG(Fundel::LOG_WARN, "%s : open file failed! path:%s, mode:%s\n", "CDefaultStorDev::Open",
                path ? path : "(null)", mode ? mode : "(null)");
        return -1;
    }
    if (m_file) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    copy_path(m_path, path);
    m_file = Platform::open_file(m_path, mode);
    if (!m_file) {
        const int err = errno;
        char text[128];
        CVN_LOG(Fundel::LOG_WARN, "%s : open file failed! path:%s, mode:%s, error:%d, %s\n", "CDefaultStorDev::Open",
                m_path, mode, err, Platform::file_error_text(err, text, sizeof text));
        return -1;
    }
    return 0;
}

void CDefaultStorDev::Close()
{
    delete this;
}

int CDefaultStorDev::Write(const char* buf, unsigned int len)
{
    if (!m_file || !buf) return -1;
    return static_cast<int>(std::fwrite(buf, 1, len, m_file));
}

int CDefaultStorDev::Read(char* buf, unsigned int len)
{
    if (!m_file || !buf) return -1;
    const std::size_t n = std::fread(buf, 1, len, m_file);
    // Nothing read is -1, the end of the file included: callers tell the end by the size.
    return n != 0 ? static_cast<int>(n) : -1;
}

int CDefaultStorDev::Seek(long long offset, int whence)
{
    // From the end is refused: a file still being written has no settled end.
    if (!m_file || (whence != SEEK_SET && whence != SEEK_CUR)) return -1;
    return Platform::seek_file(m_file, offset, whence);
}

int CDefaultStorDev::Stat(NFile_Info* info)
{
    Platform::SFileStatus status{};
    if (!info || Platform::stat_file(m_path, &status) != 0) {
        const int err = info ? errno : EINVAL;
        char text[128];
        CVN_LOG(Fundel::LOG_WARN, "get fstat failed, error:%d, %s\n", err, Platform::file_error_text(err, text, sizeof text));
        return -1;
    }
    info->creation_time = status.created;
    info->access_time = status.accessed;
    info->modification_time = status.modified;
    // A 32-bit size widened, as this device has always reported it.
    info->size = static_cast<std::int32_t>(static_cast<std::uint32_t>(status.size));
    info->reserved = 0;
    copy_path(info->path, m_path);
    return 0;
}

}  // namespace Qelvar::Corvane
