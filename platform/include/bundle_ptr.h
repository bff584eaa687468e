/*
 * An owned bundle: freed with bundle_free when its owner goes. For C++ code
 * of the service, the host platform and the tools.
 */
#ifndef TILVANE_PLATFORM_BUNDLE_PTR_H
#define TILVANE_PLATFORM_BUNDLE_PTR_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>

struct BundleFree
{
    void operator()(bundle* b) const
    {
        if (b != nullptr) {
            bundle_free(b);
        }
    }
};

using BundlePtr = std::unique_ptr<bundle, BundleFree>;

/* A new, empty bundle. */
inline BundlePtr MakeBundle()
{
    return BundlePtr(bundle_create());
}

/* A new bundle of these string entries, added in order. */
inline BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>>& entries)
{
    BundlePtr b = MakeBundle();
    for (const auto& entry : entries) {
        bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str());
    }
    return b;
}

/* The string entries of `b`, in its order (the reverse of MakeBundle). */
inline std::vector<std::pair<std::string, std::string>> BundleEntries(bundle* b)
{
    std::vector<std::pair<std::string, std::string>> entries;
    bundle_iterate(
        b,
        [](const char* key, const char* value, void* data) {
            static_cast<std::vector<std::pair<std::string, std::string>>*>(data)->emplace_back(key, value);
        },
        &entries);
    return entries;
}

#endif
