/*
 * The image files of the launcher content. Tiles and launcher entries carry
 * device paths such as "/opt/usr/apps/org.example.videos/shared/res/poster.png";
 * the preview serves them from the images folder (<platform root>/opt/usr/apps)
 * and from nowhere else:
 *
 * - the path must lie under /opt/usr/apps; a "..", "." or hidden component
 *   (a name starting with ".") refuses it, whatever follows;
 * - the file is reached one folder at a time from the images folder (openat
 *   with O_NOFOLLOW), so a symbolic link anywhere on the way refuses it;
 * - only a regular file of at most kMaxImageBytes is read, and only when its
 *   name is an image's and its first bytes are an image's (PNG, JPEG, GIF,
 *   WebP, BMP or SVG); the type sent is the one its bytes show;
 * - in the verified identity mode it is read with the privileges of the
 *   package that owns the tile or entry (its user and group, no other group),
 *   or not at all.
 */
#ifndef TILVANE_PREVIEW_IMAGE_PATH_H
#define TILVANE_PREVIEW_IMAGE_PATH_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tilvane {
namespace preview {

/* Where tiles name their images on a device. */
constexpr const char* kImagesDevicePath = "/opt/usr/apps";
/* The largest image the preview reads. */
constexpr size_t kMaxImageBytes = 8 * 1024 * 1024;

enum class ImageLookup {
    Found,    /* `data` holds the file, `contentType` its type */
    Refused,  /* the path or the file may not be served (403) */
    NotFound  /* a path that may be served, but there is no such file (404) */
};

struct ImageFile {
    ImageLookup lookup = ImageLookup::NotFound;
    std::string data;
    std::string contentType;
    std::string reason; /* why it was refused or not found */
};

/* Whose privileges a file is read with: the preview's own, or a package's
 * user and group (the preview must be root to take them). */
struct ImageReader {
    bool asPackage = false;
    uid_t uid = 0;
    gid_t gid = 0;
};

/* The components under the images folder that `devicePath` names; false with
 * `reason` when it may not be served. */
bool ImageComponents(const std::string& devicePath, std::vector<std::string>& components, std::string& reason);

/* Reads the image `devicePath` names from `imagesDir`, as `reader`. */
ImageFile ReadImage(const std::string& imagesDir, const std::string& devicePath, const ImageReader& reader);

/* The image type of a file name's extension ("image/png" ...), or "" when
 * the name is not one of an image the preview serves. */
std::string ImageContentType(const std::string& name);

/* The image type that a file's first bytes show, or "" when they are not an
 * image's. */
std::string SniffImageType(const std::string& bytes);

}  // namespace preview
}  // namespace tilvane

#endif
