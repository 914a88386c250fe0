// A web page's end of the helper's WebSocket in a process of its own, so that tests can connect
// from another process or another account. Usage: page-probe <port> <origin>. Prints
// "status <HTTP status of the upgrade answer>" and, once admitted, "message <first text>".
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <iostream>
#include <string>

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using boost::asio::ip::tcp;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: page-probe <port> <origin>\n";
        return 2;
    }
    const std::string port = argv[1];
    const std::string origin = argv[2];
    boost::asio::io_context context;
    websocket::stream<beast::tcp_stream> socket(context);
    beast::get_lowest_layer(socket).expires_after(std::chrono::seconds(20));
    beast::error_code error;
    beast::get_lowest_layer(socket).connect(
        tcp::endpoint(boost::asio::ip::address_v4::loopback(),
                      static_cast<unsigned short>(std::stoi(port))),
        error);
    if (error) {
        std::cout << "connect failed " << error.message() << std::endl;
        return 1;
    }
    socket.set_option(websocket::stream_base::decorator([&](websocket::request_type& request) {
        request.set(beast::http::field::origin, origin);
    }));
    websocket::response_type response;
    socket.handshake(response, "127.0.0.1:" + port, "/", error);
    std::cout << "status " << response.result_int() << std::endl;
    if (error) return 0;
    beast::get_lowest_layer(socket).expires_after(std::chrono::seconds(20));
    beast::flat_buffer buffer;
    socket.read(buffer, error);
    if (!error) std::cout << "message " << beast::buffers_to_string(buffer.data()) << std::endl;
    socket.close(websocket::close_code::normal, error);
    return 0;
}
