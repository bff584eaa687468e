/*
 * Preview event subscriptions and their delivery.
 *
 * Applications subscribe to preview events by sending requests to the
 * helper's local message port; the image download manager is subscribed from
 * the start. Send() delivers an event bundle to every subscriber and, when a
 * direct delivery fails, keeps re-sending it from a detached thread.
 */
#ifndef TILVANE_MESSAGE_HELPER_H
#define TILVANE_MESSAGE_HELPER_H

#include <bundle.h>

#include <map>
#include <string>

#include <bundle_ptr.h>

class CMessageHelper
{
public:
    /* What a background sender owns: where to send, and its own copy of the event. */
    struct SendEventData
    {
        std::string strAppId;
        std::string strPortName;
        BundlePtr pMessage;
    };

    /* `localPortName` is the port on which subscription requests arrive. */
    explicit CMessageHelper(std::string localPortName);
    /* Frees the subscriber list; the local port stays registered. */
    virtual ~CMessageHelper();

    CMessageHelper(const CMessageHelper&) = delete;
    CMessageHelper& operator=(const CMessageHelper&) = delete;

    /* Registers the local port (retried 60 times, one second apart) and
     * subscribes the download manager. 0 on success, -1 otherwise. */
    int Init();

    /* Message-port callback of the local port; user data is the helper. */
    static void RequestCallback(int localPortId, const char* remoteAppId, const char* remotePort,
                                bool trustedRemotePort, bundle* pMessage, void* pUserData);

    void SubscribalRequest(std::string appId, std::string portName);
    void UnsubscribalRequest(std::string appId, std::string portName);
    /* Sends the test event directly to `portName` of `appId`. */
    void TestTriggerPreviewEventRequest(std::string appId, std::string portName);

    /* Delivers `pMessage` to every subscriber. Returns the result of the last
     * delivery made, -22 when none was made, or 0xFEED0001 when a failed
     * delivery goes on in the background (with `bRetry`). The caller keeps the
     * bundle. */
    int Send(bundle* pMessage, bool bRetry);

    /* Sends to one port when it exists; 0 when it does not. */
    static int SendEvent(std::string appId, std::string portName, bundle* pMessage);
    /* Body of a background sender: five deliveries, one second apart. Takes a
     * SendEventData and frees it. */
    static void* SendEventThread(void* pData);

    /* The port name part of a subscriber key ("<port>_<application id>"). */
    std::string GetLocalPortNameFromKey(std::string key, std::string appId);

private:
    /* What the helper keeps beside a subscriber: the package it counts
     * against, and the watch that drops it when its port goes (-1: none). */
    struct SubscriberInfo
    {
        std::string strPackageId;
        int nWatcherId;
    };

    void DumpSubscribers();
    /* False, with a log line, when a new subscriber would pass the bounds of
     * the list (128 ports per package, 256 subscribers in all); a new
     * subscriber's package in `packageId`. */
    bool SubscriberAllowed(const std::string& key, const std::string& appId, const std::string& portName,
                           std::string& packageId);
    void WatchSubscriber(const std::string& key, const std::string& appId, const std::string& portName,
                         const std::string& packageId);
    /* Removes a subscriber and its watch. */
    void ForgetSubscriber(const std::string& key);
    /* Platform callback: a subscriber's port is gone; user data is the helper. */
    static void SubscriberGoneCB(const char* remoteAppId, const char* remotePort, bool trustedRemotePort,
                                 void* pUserData);

    /* "<port>_<application id>" (or "" for an empty port) -> application id. */
    std::map<std::string, std::string> m_mapSubscribers;
    std::string m_strLocalPortName;
    int m_nReserved;
    /* Key as above -> what is kept beside it (not for the download manager). */
    std::map<std::string, SubscriberInfo> m_mapSubscriberInfo;
};

#endif
