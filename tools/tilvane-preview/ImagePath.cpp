#include "ImagePath.h"

#include <glib.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <vector>

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

/* The canonical path of an existing file, "" when it does not exist. */
std::string RealPath(const std::string& path)
{
    std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    return real ? std::string(real.get()) : std::string();
}

std::vector<std::string> Components(const std::string& path)
{
    std::vector<std::string> parts;
    std::stringstream stream(path);
    std::string part;
    while (std::getline(stream, part, '/')) {
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
    }
    return parts;
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

ImageFile ResolveImagePath(const std::string& root, const std::string& requested)
{
    if (requested.empty()) {
        return Missing("no image path");
    }
    if (requested.find('\0') != std::string::npos) {
        return Refuse("the path holds a NUL byte");
    }
    const std::vector<std::string> parts = Components(requested);
    if (parts.empty()) {
        return Missing("no image path");
    }
    for (const std::string& part : parts) {
        if (part == "..") {
            return Refuse("the path leaves its folder (..)");
        }
        if (part[0] == '.') {
            return Refuse("hidden files are not served");
        }
    }
    const std::string contentType = ImageContentType(parts.back());
    if (contentType.empty()) {
        return Refuse("not an image file name");
    }

    const std::string realRoot = RealPath(root);
    if (realRoot.empty()) {
        return Missing("the platform root does not exist");
    }
    const std::string base = realRoot == "/" ? "" : realRoot;
    std::string candidate = base;
    for (const std::string& part : parts) {
        candidate += "/" + part;
    }
    const std::string realFile = RealPath(candidate);
    if (realFile.empty()) {
        return Missing("no such file under the platform root");
    }
    if (realFile.compare(0, base.size() + 1, base + "/") != 0) {
        return Refuse("the file lies outside the platform root");
    }
    struct stat info {};
    if (stat(realFile.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return Missing("not a regular file");
    }
    ImageFile found;
    found.lookup = ImageLookup::Found;
    found.file = realFile;
    found.contentType = contentType;
    return found;
}

}  // namespace preview
}  // namespace tilvane
