/*
 * The preview-event subscriber list is bounded whatever applications send:
 * 128 ports per package (its applications and its bare package id together),
 * 256 subscribers in all; a subscription beyond either bound is refused with
 * one log line and changes nothing.
 */
#include <gtest/gtest.h>
#include <host_control.h>

#include <string>

#include "MessageHelper.h"
#include "TestSupport.h"

using tilvane::test::CountLines;

namespace {

class SubscriberBoundsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::StartLogCapture();
    }
    void TearDown() override { tilvane::host::Reset(); }

    static void Subscribe(CMessageHelper& helper, const std::string& appId, int from, int to)
    {
        for (int i = from; i < to; ++i) {
            helper.SubscribalRequest(appId, "p" + std::to_string(i));
        }
    }
};

TEST_F(SubscriberBoundsTest, OneApplicationGetsAtMost128Ports)
{
    CMessageHelper helper("preview-event-receiver");
    Subscribe(helper, "com.example.a", 0, 130);

    EXPECT_EQ(CountLines("tilvane", "[com.example.a] was added - [p"), 128);
    EXPECT_EQ(CountLines("tilvane", "[com.example.a] was not added - [p128] : the application has 128 subscribed ports"),
              1);
    EXPECT_EQ(CountLines("tilvane", "[com.example.a] was not added - [p129] : the application has 128 subscribed ports"),
              1);
    /* A refusal neither changes nor dumps the list: 128 dumps, one per addition. */
    EXPECT_EQ(CountLines("tilvane", "============ Preview Event Listener App List =============="), 128);

    /* A port already subscribed is taken again; after an unsubscription a new one fits. */
    helper.SubscribalRequest("com.example.a", "p5");
    EXPECT_EQ(CountLines("tilvane", "[com.example.a] was added - [p5]"), 2);
    helper.UnsubscribalRequest("com.example.a", "p0");
    helper.SubscribalRequest("com.example.a", "p200");
    EXPECT_EQ(CountLines("tilvane", "[com.example.a] was added - [p200]"), 1);
    EXPECT_EQ(CountLines("tilvane", "was not added"), 2);
}

TEST_F(SubscriberBoundsTest, TheListHoldsAtMost256Subscribers)
{
    CMessageHelper helper("preview-event-receiver");
    Subscribe(helper, "com.example.a", 0, 128);
    Subscribe(helper, "com.example.b", 0, 128);
    helper.SubscribalRequest("com.example.c", "inbox");

    EXPECT_EQ(CountLines("tilvane", "was added - [p"), 256);
    EXPECT_EQ(CountLines("tilvane", "[com.example.c] was not added - [inbox] : the list is full (256 subscribers)"), 1);
    EXPECT_EQ(CountLines("tilvane", "[com.example.c] was added"), 0);

    helper.UnsubscribalRequest("com.example.b", "p0");
    helper.SubscribalRequest("com.example.c", "inbox");
    EXPECT_EQ(CountLines("tilvane", "[com.example.c] was added - [inbox]"), 1);
}

/* The applications of one installed package and its bare package id share
 * the package's 128 ports; another package keeps its own. */
TEST(PackageSubscriberBoundsTest, ThePackagesApplicationsAndItsBareIdShareOneBound)
{
    tilvane::test::PlatformSandbox sandbox;
    tilvane::host::RegisteredPackage package;
    package.packageId = "org.example.p";
    package.applications.push_back({"org.example.p.a", {}});
    package.applications.push_back({"org.example.p.b", {}});
    ASSERT_TRUE(tilvane::host::InstallPackage(package));

    CMessageHelper helper("preview-event-receiver");
    for (const char* appId : {"org.example.p.a", "org.example.p.b", "org.example.p", "org.example.q"}) {
        for (int i = 0; i < 100; ++i) {
            helper.SubscribalRequest(appId, "p" + std::to_string(i));
        }
    }
    EXPECT_EQ(CountLines("tilvane", "was added - [p"), 128 + 100);
    EXPECT_EQ(CountLines("tilvane", "[org.example.p.a] was added"), 100);
    EXPECT_EQ(CountLines("tilvane", "[org.example.p.b] was added"), 28);
    EXPECT_EQ(CountLines("tilvane", "[org.example.p.b] was not added - [p28] : the package org.example.p has 128 "
                                    "subscribed ports"),
              1);
    EXPECT_EQ(CountLines("tilvane", "[org.example.p] was added"), 0);
    EXPECT_EQ(CountLines("tilvane", "[org.example.p] was not added - [p0] : the application has 128 subscribed ports"),
              1);
    EXPECT_EQ(CountLines("tilvane", "[org.example.q] was added"), 100);

    /* A port given back makes room in the package. */
    helper.UnsubscribalRequest("org.example.p.a", "p0");
    helper.SubscribalRequest("org.example.p", "p0");
    EXPECT_EQ(CountLines("tilvane", "[org.example.p] was added - [p0]"), 1);
}

}  // namespace
