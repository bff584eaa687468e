/*
 * Which file an image path of the launcher content names. Tiles carry device
 * paths such as "/opt/usr/apps/org.example.videos/shared/res/poster.png"; the
 * preview serves them from under the platform root and from nowhere else:
 *
 * - a ".." component refuses the path, whatever follows it;
 * - a component that starts with "." (hidden files such as the databases)
 *   refuses it;
 * - only image files are served, decided by the name's extension;
 * - after symbolic links are followed the file must still lie under the root.
 */
#ifndef TILVANE_PREVIEW_IMAGE_PATH_H
#define TILVANE_PREVIEW_IMAGE_PATH_H

#include <string>

namespace tilvane {
namespace preview {

enum class ImageLookup {
    Found,    /* `file` is the file to send, `contentType` its type */
    Refused,  /* the path may not be served (403) */
    NotFound  /* a path that may be served, but there is no such file (404) */
};

struct ImageFile {
    ImageLookup lookup = ImageLookup::NotFound;
    std::string file;
    std::string contentType;
    std::string reason; /* why it was refused or not found */
};

/* The file under `root` that the device path `requested` names. */
ImageFile ResolveImagePath(const std::string& root, const std::string& requested);

/* The image type of a file name's extension ("image/png" ...), or "" when
 * the name is not one of an image the preview serves. */
std::string ImageContentType(const std::string& name);

}  // namespace preview
}  // namespace tilvane

#endif
