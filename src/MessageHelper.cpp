#include "MessageHelper.h"

#include <app_info.h>
#include <confinement_policy.h>
#include <message_port.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "TilesModel.h"
#include "TilvaneLog.h"

namespace {

/* The image download manager, subscribed to every helper from the start. */
const std::string DOWNLOAD_MANAGER_APP_ID = "DownloadManager";
const std::string DOWNLOAD_MANAGER_PORT_NAME = "image_update_db";

const char REQUEST_TYPE_KEY[] = "request_type";
const char REQUEST_SUBSCRIBE[] = "SubscribePreviewEvent";
const char REQUEST_UNSUBSCRIBE[] = "UnsubscribePreviewEvent";
const char REQUEST_TRIGGER[] = "TriggerPreviewEvent";
const char TRIGGER_TARGET_PORT_KEY[] = "replaceTargetPortName";

/* Registration attempts after the first one fails, one second apart. */
const int REGISTER_RETRY_COUNT = 60;
/* Background re-sends of an event whose direct delivery failed. */
const int RESEND_COUNT = 5;

/* Bounds of the subscriber list, whatever applications send: ports of one
 * package (its applications and its bare package id together), and
 * subscribers in all (the download manager included), so that one package
 * can never fill the list. A subscription beyond them is refused with one
 * log line. */
const size_t MAX_SUBSCRIBED_PORTS_PER_PACKAGE = 128;
const size_t MAX_SUBSCRIBERS = 256;

const int RESULT_INVALID = -22;
/* Send()'s result when a failed delivery goes on in a background thread. */
const int RESULT_SENDING_IN_BACKGROUND = static_cast<int>(0xFEED0001u);

/* The key of a subscriber: its port, "_" and its application id; the empty
 * key for an empty port. */
std::string SubscriberKey(const std::string& appId, const std::string& portName)
{
    if (portName.empty()) {
        return std::string();
    }
    return portName + "_" + appId;
}

/* The package of an application id: its installed package, else the id
 * itself (a bare package id, or an id that no package declares). */
std::string PackageOf(const std::string& appId)
{
    app_info_h pInfo = nullptr;
    if (app_info_create(appId.c_str(), &pInfo) != APP_MANAGER_ERROR_NONE || pInfo == nullptr) {
        return appId;
    }
    char* pPackageId = nullptr;
    std::string packageId = appId;
    if (app_info_get_package(pInfo, &pPackageId) == APP_MANAGER_ERROR_NONE && pPackageId != nullptr) {
        packageId = pPackageId;
        free(pPackageId);
    }
    app_info_destroy(pInfo);
    return packageId;
}

}  // namespace

CMessageHelper::CMessageHelper(std::string localPortName)
    : m_mapSubscribers(), m_strLocalPortName(std::move(localPortName)), m_nReserved(0)
{
}

CMessageHelper::~CMessageHelper()
{
    for (const auto& subscriber : m_mapSubscriberInfo) {
        if (subscriber.second.nWatcherId > 0) {
            message_port_remove_registration_event_cb(subscriber.second.nWatcherId);
        }
    }
}

int CMessageHelper::Init()
{
    int portId = message_port_register_local_port(m_strLocalPortName.c_str(), RequestCallback, this);
    int retry = 0;
    while (portId < 0) {
        if (retry >= REGISTER_RETRY_COUNT) {
            return -1;
        }
        LOGI("failed to message_port_register_local_port : %d", portId);
        sleep(1);
        portId = message_port_register_local_port(m_strLocalPortName.c_str(), RequestCallback, this);
        ++retry;
    }
    if (retry > 0) {
        LOGI("message port is ready : %d", retry);
    }
    if (portId == 0) {
        return -1;
    }

    std::string key = DOWNLOAD_MANAGER_PORT_NAME + "_" + DOWNLOAD_MANAGER_APP_ID;
    m_mapSubscribers.insert(std::make_pair(key, DOWNLOAD_MANAGER_APP_ID));
    return 0;
}

void CMessageHelper::RequestCallback(int localPortId, const char* remoteAppId, const char* remotePort,
                                     bool trustedRemotePort, bundle* pMessage, void* pUserData)
{
    (void)localPortId;
    (void)trustedRemotePort;
    LOGI("Start RequestCallback [%s] [%s]", remoteAppId != nullptr ? remoteAppId : "(null)",
         remotePort != nullptr ? remotePort : "(null)");

    CMessageHelper* pHelper = static_cast<CMessageHelper*>(pUserData);
    if (pHelper == nullptr) {
        LOGE("Error : pUserData is NULL");
        return;
    }

    const char* requestType = bundle_get_val(pMessage, REQUEST_TYPE_KEY);
    if (requestType == nullptr || remoteAppId == nullptr || remotePort == nullptr) {
        LOGE("Error : requested information is wrong");
        return;
    }

    std::string request(requestType);
    if (request == REQUEST_SUBSCRIBE) {
        pHelper->SubscribalRequest(remoteAppId, remotePort);
    } else if (request == REQUEST_UNSUBSCRIBE) {
        pHelper->UnsubscribalRequest(remoteAppId, remotePort);
    } else if (request == REQUEST_TRIGGER) {
        const char* targetPort = bundle_get_val(pMessage, TRIGGER_TARGET_PORT_KEY);
        if (targetPort != nullptr) {
            pHelper->TestTriggerPreviewEventRequest(remoteAppId, targetPort);
        }
    } else {
        LOGI("Not defined Preview Event");
    }
}

void CMessageHelper::SubscribalRequest(std::string appId, std::string portName)
{
    LOGI("Start SubscribalRequest");
    std::string key = SubscriberKey(appId, portName);
    std::string packageId;
    if (!SubscriberAllowed(key, appId, portName, packageId)) {
        return;
    }
    if (m_mapSubscribers.insert(std::make_pair(key, appId)).second) {
        WatchSubscriber(key, appId, portName, packageId);
    }
    LOGI("[%s] was added - [%s]", appId.c_str(), portName.c_str());
    DumpSubscribers();
}

/* A subscriber stays while its port runs: when the port goes (its
 * application left the bus), it is dropped. */
void CMessageHelper::WatchSubscriber(const std::string& key, const std::string& appId, const std::string& portName,
                                     const std::string& packageId)
{
    SubscriberInfo info{packageId, -1};
    if (!portName.empty() &&
        message_port_add_unregistered_cb(appId.c_str(), portName.c_str(), false, SubscriberGoneCB, this,
                                         &info.nWatcherId) != MESSAGE_PORT_ERROR_NONE) {
        info.nWatcherId = -1;
    }
    m_mapSubscriberInfo[key] = info;
}

void CMessageHelper::ForgetSubscriber(const std::string& key)
{
    auto info = m_mapSubscriberInfo.find(key);
    if (info != m_mapSubscriberInfo.end()) {
        if (info->second.nWatcherId > 0) {
            message_port_remove_registration_event_cb(info->second.nWatcherId);
        }
        m_mapSubscriberInfo.erase(info);
    }
    m_mapSubscribers.erase(key);
}

void CMessageHelper::SubscriberGoneCB(const char* remoteAppId, const char* remotePort, bool /*trustedRemotePort*/,
                                      void* pUserData)
{
    CMessageHelper* pHelper = static_cast<CMessageHelper*>(pUserData);
    if (pHelper == nullptr || remoteAppId == nullptr || remotePort == nullptr) {
        return;
    }
    std::string key = SubscriberKey(remoteAppId, remotePort);
    if (pHelper->m_mapSubscribers.count(key) == 0) {
        return;
    }
    pHelper->ForgetSubscriber(key);
    LOGI("[%s] was dropped - [%s] : its port is gone", remoteAppId, remotePort);
}

bool CMessageHelper::SubscriberAllowed(const std::string& key, const std::string& appId, const std::string& portName,
                                       std::string& packageId)
{
    if (m_mapSubscribers.count(key) != 0) {
        return true;
    }
    if (m_mapSubscribers.size() >= MAX_SUBSCRIBERS) {
        LOGI("[%s] was not added - [%s] : the list is full (%zu subscribers)", appId.c_str(), portName.c_str(),
             m_mapSubscribers.size());
        return false;
    }
    packageId = PackageOf(appId);
    size_t packagePorts = 0;
    for (const auto& subscriber : m_mapSubscriberInfo) {
        if (subscriber.second.strPackageId == packageId) {
            ++packagePorts;
        }
    }
    if (packagePorts >= MAX_SUBSCRIBED_PORTS_PER_PACKAGE) {
        if (packageId == appId) {
            LOGI("[%s] was not added - [%s] : the application has %zu subscribed ports", appId.c_str(),
                 portName.c_str(), packagePorts);
        } else {
            LOGI("[%s] was not added - [%s] : the package %s has %zu subscribed ports", appId.c_str(),
                 portName.c_str(), packageId.c_str(), packagePorts);
        }
        return false;
    }
    return true;
}

void CMessageHelper::UnsubscribalRequest(std::string appId, std::string portName)
{
    LOGI("Start UnsubscribalRequest");
    std::string key = SubscriberKey(appId, portName);
    ForgetSubscriber(key);
    LOGI("[%s] was removed", appId.c_str());
    DumpSubscribers();
}

void CMessageHelper::DumpSubscribers()
{
    LOGI("============ Preview Event Listener App List ==============");
    for (const auto& subscriber : m_mapSubscribers) {
        LOGI("appID : [%s], PortName : [%s]", subscriber.second.c_str(), subscriber.first.c_str());
    }
    LOGI("===========================================================");
}

void CMessageHelper::TestTriggerPreviewEventRequest(std::string appId, std::string portName)
{
    LOGI("Start TestTriggerPreviewEventRequest");
    BundlePtr pEvent = MakeBundle();
    bundle_add_str(pEvent.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "livetv_antenna");
    bundle_add_str(pEvent.get(), TilesModel::Tiles::TILE_SECTION_RAW_ID, "");
    bundle_add_str(pEvent.get(), "sync", "end");
    SendEvent(appId, portName, pEvent.get());
}

namespace {

/* Under strict confinement an event tells of one package's change: it reaches
 * the platform's subscribers and the applications of that package, no other
 * application. The default mode sends every event to every subscriber. */
bool MayHearOf(const std::string& appId, bundle* pMessage)
{
    if (!confinement_policy_is_strict() || confinement_policy_is_platform_app(appId.c_str())) {
        return true;
    }
    const char* pPackage = bundle_get_val(pMessage, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);
    return pPackage != nullptr && PackageOf(appId) == pPackage;
}

}  // namespace

int CMessageHelper::Send(bundle* pMessage, bool bRetry)
{
    LOGI("Start SendEvent");
    if (pMessage == nullptr) {
        LOGI("Error : pMessage is NULL");
        return RESULT_INVALID;
    }
    if (m_mapSubscribers.empty()) {
        return RESULT_INVALID;
    }

    int result = RESULT_INVALID;
    int index = 0;
    for (const auto& subscriber : m_mapSubscribers) {
        ++index;
        LOGI("Sending %ith event", index);
        const std::string& appId = subscriber.second;
        std::string portName = GetLocalPortNameFromKey(subscriber.first, appId);
        if (!MayHearOf(appId, pMessage)) {
            LOGD("event withheld from %s: another package's (strict confinement)", appId.c_str());
            continue;
        }

        bool exist = false;
        if (message_port_check_remote_port(appId.c_str(), portName.c_str(), &exist) != MESSAGE_PORT_ERROR_NONE) {
            LOGI("failed to message_port_check_remote_port");
            continue;
        }
        if (!exist) {
            LOGI("Target AppID [%s] or port [%s] is not exist", appId.c_str(), portName.c_str());
            continue;
        }

        result = SendEvent(appId, portName, pMessage);
        if (result != 0 && bRetry) {
            std::unique_ptr<SendEventData> pData(
                new SendEventData{appId, portName, BundlePtr(bundle_dup(pMessage))});
            pthread_attr_t attr;
            pthread_attr_init(&attr);
            pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
            pthread_t thread;
            int created = pthread_create(&thread, &attr, SendEventThread, pData.get());
            pthread_attr_destroy(&attr);
            if (created != 0) {
                LOGE("failed to start the re-send thread : %d", created);
            } else {
                // The thread owns the data now.
                pData.release();
                result = RESULT_SENDING_IN_BACKGROUND;
            }
        }
    }
    return result;
}

int CMessageHelper::SendEvent(std::string appId, std::string portName, bundle* pMessage)
{
    bool exist = false;
    if (message_port_check_remote_port(appId.c_str(), portName.c_str(), &exist) != MESSAGE_PORT_ERROR_NONE) {
        LOGE("message_port_check_remote_port has failed for %s", appId.c_str());
        return 0;
    }
    if (!exist) {
        LOGI("SKIP : remote port is not exist");
        return 0;
    }

    int result = message_port_send_message(appId.c_str(), portName.c_str(), pMessage);
    if (result != 0) {
        LOGI("NG - appID: %s", appId.c_str());
    } else {
        LOGI("OK - appID: %s, portName : %s", appId.c_str(), portName.c_str());
    }
    return result;
}

void* CMessageHelper::SendEventThread(void* pData)
{
    std::unique_ptr<SendEventData> pEventData(static_cast<SendEventData*>(pData));
    if (pEventData == nullptr) {
        LOGI("pData is NULL");
        return nullptr;
    }
    if (pEventData->pMessage != nullptr) {
        // Every attempt is made whatever the previous one returned: a
        // subscriber may get the event more than once.
        for (int attempt = 0; attempt < RESEND_COUNT; ++attempt) {
            SendEvent(pEventData->strAppId, pEventData->strPortName, pEventData->pMessage.get());
            sleep(1);
        }
    }
    return nullptr;
}

std::string CMessageHelper::GetLocalPortNameFromKey(std::string key, std::string appId)
{
    std::string suffix = "_" + appId;
    if (key.length() <= suffix.length()) {
        return std::string();
    }
    size_t position = key.rfind(suffix);
    if (position == std::string::npos) {
        return std::string();
    }
    return key.substr(0, position);
}
