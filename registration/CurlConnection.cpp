#include "registration/CurlConnection.h"

#include <new>
#include <stdexcept>
#include <utility>

#include "log/Log.h"

namespace nox::tunnel_client {

namespace {

struct HeadersDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Headers = std::unique_ptr<curl_slist, HeadersDeleter>;

void Append(Headers& headers, const std::string& line) {
    curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();  // `headers` still owns the shorter list
    static_cast<void>(headers.release());           // the shorter list is part of the longer one now
    headers.reset(longer);
}

Headers MakeHeaders(const std::string& token) {
    Headers headers;
    Append(headers, "Content-Type: application/json");
    Append(headers, "Authorization: Bearer " + token);
    return headers;
}

}  // namespace

CurlConnection::CurlConnection() { curl_global_init(CURL_GLOBAL_ALL); }

CurlConnection::~CurlConnection() { curl_global_cleanup(); }

HttpResponse CurlConnection::Get(const std::string& url, const std::string& token) {
    PrepareHandle();
    curl_easy_setopt(handle.get(), CURLOPT_HTTPGET, 1L);
    return Perform(url, token);
}

HttpResponse CurlConnection::Post(const std::string& url, const std::string& token, const std::string& body) {
    PrepareHandle();
    curl_easy_setopt(handle.get(), CURLOPT_HTTPGET, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS,
                     body.c_str());  // not copied; `body` outlives the request
    return Perform(url, token);
}

HttpResponse CurlConnection::Delete(const std::string& url, const std::string& token) {
    PrepareHandle();
    curl_easy_setopt(handle.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
    return Perform(url, token);
}

void CurlConnection::PrepareHandle() {
    handle.reset(curl_easy_init());
    if (handle == nullptr) throw std::runtime_error("Curl initialization failed");
    curl_easy_setopt(handle.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    curl_easy_setopt(handle.get(), CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_MAXREDIRS, 50L);
    curl_easy_setopt(handle.get(), CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 30L);  // seconds, for the whole transfer
}

HttpResponse CurlConnection::Perform(const std::string& url, const std::string& token) {
    HttpResponse response;
    const Handle curl = std::move(handle);  // released after the headers, also when something throws
    const Headers headers = MakeHeaders(token);
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &CurlConnection::WriteCallback);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response.body);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK) {
        LogWrite("CurlConnection", __LINE__, logWarning, "Curl error, code: %d, url: %s",
                 static_cast<int>(code), url.c_str());
        throw std::runtime_error("curl_easy_perform() failed");
    }
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &response.httpCode);
    return response;
}

std::size_t CurlConnection::WriteCallback(char* data, std::size_t size, std::size_t count,
                                          void* body) noexcept {
    try {
        static_cast<std::string*>(body)->append(data, size * count);
        return size * count;
    } catch (const std::exception&) {
        return 0;  // No exception may pass through libcurl's code; 0 makes it end the transfer with an error.
    }
}

}  // namespace nox::tunnel_client
