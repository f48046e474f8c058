// Registers the box and follows the registration: register RUN_DIRECTORY TOKEN
//
// Exit code 0 when the box is registered. Needs cppzmq and jansson, Debian's cppzmq-dev and libjansson-dev:
// g++ -std=c++17 register.cpp -o register -lzmq -ljansson
#include <array>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <jansson.h>
#include <zmq_addon.hpp>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: register RUN_DIRECTORY TOKEN\n";
        return 2;
    }
    const std::string endpoint = std::string("ipc://") + argv[1];
    zmq::context_t context;
    zmq::socket_t published(context, zmq::socket_type::sub);
    published.set(zmq::sockopt::subscribe, "");
    published.connect(endpoint + "/published");
    zmq::socket_t commands(context, zmq::socket_type::dealer);
    commands.set(zmq::sockopt::linger, 0);
    commands.connect(endpoint + "/commands");
    std::array<zmq::pollitem_t, 2> items{
        {{published.handle(), 0, ZMQ_POLLIN, 0}, {commands.handle(), 0, ZMQ_POLLIN, 0}}};
    // Wait for the subscription before sending the command: a message that is published earlier is lost.
    if (zmq::poll(items.data(), 1, std::chrono::seconds(5)) == 0) {
        std::cerr << "no cvcloudd serves " << argv[1] << '\n';
        return 1;
    }

    json_t* const payload = json_pack("{s:s, s:s}", "token", argv[2], "token_type", "partner");
    char* const text = json_dumps(payload, 0);
    zmq::send_multipart(commands, std::array{zmq::str_buffer("start_cloud_registration"),
                                             zmq::str_buffer("2"), zmq::buffer(std::string_view(text))});
    free(text);
    json_decref(payload);

    while (zmq::poll(items.data(), items.size(), std::chrono::seconds(120)) > 0) {
        const bool is_reply = items[0].revents == 0;
        std::vector<zmq::message_t> frames;
        (void)zmq::recv_multipart(is_reply ? commands : published, std::back_inserter(frames));
        if (is_reply) {
            std::cout << "reply " << frames[0].to_string_view() << '\n';
            // A failure can quote the cloud and then be no JSON: only the beginning counts.
            return frames[0].to_string_view().rfind(R"({"result": "ok", )", 0) == 0 ? 0 : 1;
        }
        if (frames[0].to_string_view() == "cvcloudd_progress") {
            std::cout << "progress " << frames[1].to_string_view() << '\n';
        }
    }
    std::cerr << "no reply within 120 s\n";
    return 1;
}
