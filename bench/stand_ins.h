#ifndef STAND_INS_H
#define STAND_INS_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cvcloud/cvhandler_api.h"

/// The exchange of a successful registration with a partner token, and nothing else of a handler: what is
/// left to choose is how the worker is woken. Each mechanism signals worker_idle() before it waits.
class StandIn : public CvHandlerAPI {
public:
    virtual ~StandIn() = default;

    int init(CvCloudAPI* api, std::vector<std::string>& commands) override;
    void uninit() override;
    void handle(const Message* message) override;

protected:
    enum Step { CONNECT, REGISTER_BOX, FINISH };

    /// Wakes the worker, from any thread.
    virtual void wake() = 0;
    /// Waits for the next wake(), on the worker.
    virtual void wait() = 0;
    /// Takes what a step wants out of a document that has arrived, with libcvutils as a handler has to.
    virtual void take(Step next_step, const json_t* document);
    /// The text of what a step sends, released with free(); built with libcvutils as a handler has to.
    virtual char* text_of(Step current_step);

    std::string token;
    std::string mac;
    std::string user_token;
    std::string device_id;

private:
    void work();
    static void respond(cvtessel_response* response, void* stand_in);

    CvCloudAPI* cloud = nullptr;
    Step step = CONNECT;
    std::atomic<bool> stopping{false};
    std::thread worker;
};

/// A flag that the worker looks at every millisecond.
std::unique_ptr<StandIn> make_polling_worker();

/// A queue behind a mutex and a condition variable.
std::unique_ptr<StandIn> make_condition_queue();

/// A promise for each wake-up, waited for with a time-out of a second.
std::unique_ptr<StandIn> make_promise_with_timeout();

/// An epoll loop with an eventfd.
std::unique_ptr<StandIn> make_event_loop();

/// A pipe in the module's form: poll, write, select, read. What the module takes longer is what it adds to
/// the exchange.
std::unique_ptr<StandIn> make_building_floor();

/// The same, and of the documents no more than their parsing and writing: the texts are made of documents
/// that stay.
std::unique_ptr<StandIn> make_floor();

#endif
