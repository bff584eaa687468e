/*
 * Publishes one section with two tiles as this application, all or nothing,
 * and reads it back. Build it against the installed library:
 *   c++ -std=c++17 publish.cpp $(pkg-config --cflags --libs tilvane-client)
 * or with CMake (CMakeLists.txt beside it), and run it as an application
 * that supports the launcher: TILVANE_APP_ID=org.example.videos.main ./publish
 */
#include <cstdio>

#include <tilvane_publisher.h>

int main()
{
    using namespace tilvane::client;
    Publisher publisher;
    Content content;
    Section& news = content.AddSection("Evening news");
    news.AddTile("Headlines").imageUrl = "https://example.org/news/headlines.jpg";
    news.AddTile("Weather").imageRatio = ImageRatio::Wide;
    auto published = publisher.Publish(content, PublishMode::Replace);
    auto read = publisher.Read();
    if (!published || !read || *read != content) {
        std::fprintf(stderr, "%s\n", (published ? read.status() : published.status()).reason.c_str());
        return 1;
    }
    std::printf("published and read back %zu section(s)\n", read->sections.size());
    return 0;
}
