#include "ImagePath.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>

namespace tilvane {
namespace preview {

namespace {

ImageFile Refuse(const std::string& reason)
{
    ImageFile result;
    result.lookup = ImageLookup::Refused;
    result.reason = reason;
    return result;
}

ImageFile Missing(const std::string& reason)
{
    ImageFile result;
    result.lookup = ImageLookup::NotFound;
    result.reason = reason;
    return result;
}

/* An open file descriptor, closed on destruction. */
class Fd
{
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

/* Why an openat on the way failed, for the answer. */
ImageFile OpenFailure(const std::string& component)
{
    if (errno == ENOENT) {
        return Missing("no such file in the images folder");
    }
    if (errno == ELOOP || errno == ENOTDIR) {
        return Refuse("'" + component + "' is a symbolic link or not a folder: only files that really lie under "
                      "the images folder are served");
    }
    if (errno == EACCES || errno == EPERM) {
        return Refuse("the package's user may not read it");
    }
    return Refuse(std::string("cannot open it: ") + strerror(errno));
}

/* Reads a regular file of at most kMaxImageBytes that `fd` is open on. */
ImageFile ReadRegularFile(int fd)
{
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        return Refuse("not a regular file");
    }
    if (static_cast<unsigned long long>(info.st_size) > kMaxImageBytes) {
        return Refuse("larger than " + std::to_string(kMaxImageBytes) + " bytes");
    }
    ImageFile file;
    file.data.resize(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < file.data.size()) {
        const ssize_t n = read(fd, &file.data[done], file.data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    file.data.resize(done);
    file.lookup = ImageLookup::Found;
    return file;
}

/* Walks from `imagesDir` down `components`, never following a link. */
ImageFile Walk(const std::string& imagesDir, const std::vector<std::string>& components)
{
    Fd folder(open(imagesDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.Get() < 0) {
        return errno == ENOENT ? Missing("there is no images folder") : OpenFailure(kImagesDevicePath);
    }
    for (size_t i = 0; i + 1 < components.size(); ++i) {
        Fd next(openat(folder.Get(), components[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.Get() < 0) {
            return OpenFailure(components[i]);
        }
        folder = std::move(next);
    }
    Fd file(openat(folder.Get(), components.back().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.Get() < 0) {
        return OpenFailure(components.back());
    }
    return ReadRegularFile(file.Get());
}

/* Takes the package's user and group for this thread's file access alone
 * (setfsuid and setgroups as system calls change the calling thread only);
 * false when this process may not. */
bool TakePackageIdentity(const ImageReader& reader)
{
    if (syscall(SYS_setgroups, 0, nullptr) != 0) {
        return false;
    }
    syscall(SYS_setfsgid, reader.gid);
    syscall(SYS_setfsuid, reader.uid);
    /* An invalid id changes nothing and tells the one in force. */
    return static_cast<uid_t>(syscall(SYS_setfsuid, -1)) == reader.uid &&
           static_cast<gid_t>(syscall(SYS_setfsgid, -1)) == reader.gid;
}

ImageFile WalkAs(const std::string& imagesDir, const std::vector<std::string>& components, const ImageReader& reader)
{
    if (!reader.asPackage) {
        return Walk(imagesDir, components);
    }
    ImageFile result;
    std::thread walker([&] {
        result = TakePackageIdentity(reader)
                     ? Walk(imagesDir, components)
                     : Refuse("images are read with the privileges of the package that owns them, which this "
                              "preview cannot take (it does not run as root)");
    });
    walker.join();
    return result;
}

bool StartsWith(const std::string& text, size_t at, const char* prefix)
{
    return text.compare(at, std::strlen(prefix), prefix) == 0;
}

/* An SVG document: optional byte-order mark and blanks, then an XML
 * declaration, a comment, a doctype or the svg element, and "<svg" early on. */
bool LooksLikeSvg(const std::string& bytes)
{
    size_t at = StartsWith(bytes, 0, "\xEF\xBB\xBF") ? 3 : 0;
    while (at < bytes.size() && g_ascii_isspace(bytes[at])) {
        ++at;
    }
    const bool opens = StartsWith(bytes, at, "<?xml") || StartsWith(bytes, at, "<svg") ||
                       StartsWith(bytes, at, "<!--") || StartsWith(bytes, at, "<!DOCTYPE svg");
    return opens && bytes.substr(0, 4096).find("<svg") != std::string::npos;
}

}  // namespace

std::string ImageContentType(const std::string& name)
{
    static const std::pair<const char*, const char*> kTypes[] = {
        {".png", "image/png"},   {".jpg", "image/jpeg"}, {".jpeg", "image/jpeg"}, {".gif", "image/gif"},
        {".webp", "image/webp"}, {".bmp", "image/bmp"},  {".svg", "image/svg+xml"},
    };
    gchar* lower = g_ascii_strdown(name.c_str(), -1);
    std::string lowered(lower);
    g_free(lower);
    for (const auto& [extension, type] : kTypes) {
        if (g_str_has_suffix(lowered.c_str(), extension)) {
            return type;
        }
    }
    return "";
}

std::string SniffImageType(const std::string& bytes)
{
    if (StartsWith(bytes, 0, "\x89PNG\r\n\x1a\n")) {
        return "image/png";
    }
    if (StartsWith(bytes, 0, "\xFF\xD8\xFF")) {
        return "image/jpeg";
    }
    if (StartsWith(bytes, 0, "GIF87a") || StartsWith(bytes, 0, "GIF89a")) {
        return "image/gif";
    }
    if (bytes.size() >= 12 && StartsWith(bytes, 0, "RIFF") && StartsWith(bytes, 8, "WEBP")) {
        return "image/webp";
    }
    if (bytes.size() >= 14 && StartsWith(bytes, 0, "BM")) {
        return "image/bmp";
    }
    return LooksLikeSvg(bytes) ? "image/svg+xml" : "";
}

bool ImageComponents(const std::string& devicePath, std::vector<std::string>& components, std::string& reason)
{
    components.clear();
    if (devicePath.find('\0') != std::string::npos) {
        reason = "the path holds a NUL byte";
        return false;
    }
    const std::string prefix = std::string(kImagesDevicePath) + "/";
    if (devicePath.compare(0, prefix.size(), prefix) != 0) {
        reason = "only images under " + std::string(kImagesDevicePath) + " are served";
        return false;
    }
    std::stringstream stream(devicePath.substr(prefix.size()));
    std::string part;
    while (std::getline(stream, part, '/')) {
        if (part.empty()) {
            continue;
        }
        if (part == "..") {
            reason = "the path leaves its folder (..)";
            return false;
        }
        if (part[0] == '.') {
            reason = "hidden files and '.' are not served";
            return false;
        }
        components.push_back(part);
    }
    if (components.empty() || ImageContentType(components.back()).empty()) {
        reason = "not an image file name";
        return false;
    }
    return true;
}

ImageFile ReadImage(const std::string& imagesDir, const std::string& devicePath, const ImageReader& reader)
{
    if (devicePath.empty()) {
        return Missing("no image path");
    }
    std::vector<std::string> components;
    std::string reason;
    if (!ImageComponents(devicePath, components, reason)) {
        return Refuse(reason);
    }
    ImageFile file = WalkAs(imagesDir, components, reader);
    if (file.lookup != ImageLookup::Found) {
        return file;
    }
    file.contentType = SniffImageType(file.data);
    if (file.contentType.empty()) {
        return Refuse("the file's bytes are not an image's");
    }
    return file;
}

}  // namespace preview
}  // namespace tilvane
