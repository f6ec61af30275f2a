// SPDX-License-Identifier: GPL-2.0
// The data link: what is tried again, what ends it, and what the log says.
#include "writetracker/jorl-netlink.h"

#include "disk-server.h"
#include "fixture.h"
#include "writetracker/wt-logging.h"

namespace
{

using Lines = std::vector<std::string>;

class DataLink : public Driver
{
protected:
	void SetUp() override
	{
		Driver::SetUp();
		connect();
	}
	void TearDown() override
	{
		if (sock)
			jorl_netlink_disconnect(sock);
		Driver::TearDown();
	}
	void connect()
	{
		sock = jorl_netlink_connect(server.port());
		ASSERT_FALSE(ka_is_err(sock));
		model::clear_log();
	}
	void disconnect()
	{
		EXPECT_EQ(jorl_netlink_disconnect(std::exchange(sock, nullptr)), 0);
	}
	// A warning about the link's socket.
	std::string warning(const std::string &text) const
	{
		std::ostringstream line;
		line << "[NETL] Socket=" << static_cast<void *>(sock) << text;
		return warn_line(line.str());
	}
	std::vector<wt_netlinkmsg_hdr> messages_after_close()
	{
		while (server.messages().empty() ||
		       server.messages().back().code != WT_NETLINK_CMD_CLOSE)
			std::this_thread::yield();
		return server.messages();
	}

	DiskServer server;
	struct socket *sock = nullptr;
	wt_netlinkmsg_hdr message = {1, 7, nullptr, WT_NETLINK_CMD_READ, 2, 3, nullptr};
};

TEST_F(DataLink, Connects)
{
	EXPECT_EQ(jorl_netlink_init() + jorl_netlink_cleanup(), 0);
	const std::string port = std::to_string(server.port() + 65536); // the low 16 bits count
	for (long result : {0, -115}) {
		if (result != 0)
			model::fail("ka_sock_connect", 1, result);
		struct socket *other = jorl_netlink_connect(server.port() + 65536);
		ASSERT_FALSE(ka_is_err(other));
		EXPECT_EQ(model::logged("<6>[zorvat-INFO]:[NETL] Successfully connected to socket "
					"on port " +
					port + " via socket 0x"),
			  1);
		model::clear_log();
		jorl_netlink_disconnect(other);
	}
}

TEST_F(DataLink, ConnectFailures)
{
	// Whatever kept the socket from being made, the result is the same.
	model::fail("ka_sock_create_tcp", 1, -105);
	EXPECT_EQ(ka_ptr_err(jorl_netlink_connect(80)), -12);
	EXPECT_EQ(model::log().back(),
		  error_line("Unable to create socket for port 80. Error -105"));
	EXPECT_EQ(model::forget_sockets(), 0);

	server.kill();
	const std::string port = std::to_string(server.port());
	EXPECT_EQ(ka_ptr_err(jorl_netlink_connect(server.port())), -111);
	EXPECT_EQ(model::log().back(), error_line("[NETL] Unable to connect to socket on port " +
						  port + ". Error(-111)"));
	EXPECT_EQ(model::forget_sockets(), 1); // deliberate
}

TEST_F(DataLink, Sends)
{
	struct {
		std::vector<long> results; // of the first sends; positive: so many bytes
		int result;
		Lines log;
	} const cases[] = {
		{{}, 48, {}},
		{{10, 1, 30}, 48, {}},
		{{-11, 10, -11},
		 48,
		 {warning(" Unable to send message retrying"),
		  warning(" Unable to send message retrying")}},
		{{-4}, 48, {warning(" Unable to send message due to interruption")}},
		{{-32},
		 -32,
		 {warning(" connection broken"),
		  warning(" error while sending data on socket. Error(-32)")}},
		{{-107},
		 -107,
		 {warning(" connection broken"),
		  warning(" error while sending data on socket. Error(-107)")}},
		{{-104},
		 -104,
		 {warning(" connection broken"),
		  warning(" error while sending data on socket. Error(-104)")}},
		{{-12}, -12, {warning(" error while sending data on socket. Error(-12)")}},
	};
	server.behave(DiskServer::stays_silent);
	size_t sent = 0;
	for (auto &c : cases) {
		for (size_t i = 0; i < c.results.size(); i++)
			model::fail("ka_sock_sendmsg", static_cast<int>(i) + 1, c.results[i]);
		EXPECT_EQ(jorl_netlink_send(sock, &message, sizeof(message)), c.result);
		EXPECT_EQ(model::log(), c.log);
		model::clear_log();
		sent += c.result == 48;
	}
	disconnect();
	auto messages = messages_after_close();
	ASSERT_EQ(messages.size(), sent + 1);
	for (size_t i = 0; i < sent; i++)
		EXPECT_EQ(model::bytes_of(messages[i]), model::bytes_of(message));
}

TEST_F(DataLink, Receives)
{
	struct {
		std::vector<long> results; // of the first receives
		size_t replied;            // bytes; then the connection is closed
		int result;
		Lines log;
	} const cases[] = {
		{{}, 48, 48, {}},
		{{-512, -11},
		 48,
		 48,
		 {" Unable to recv. retrying 1", " Unable to recv. retrying 2"}},
		{{}, 47, 47, {}},
		{{}, 0, 0, {}},
		{{-11, -107},
		 48,
		 -107,
		 {" Unable to recv. retrying 1", " Broken socket detected", " broken socket",
		  " Error processing recv request.Error(-107)"}},
		{{-104},
		 48,
		 -104,
		 {" Unable to recv data from socket. Error(-104)",
		  " Error processing recv request.Error(-104)"}},
		{{-4},
		 48,
		 -4,
		 {" Unable to recv data from socket. Error(-4)",
		  " Error processing recv request.Error(-4)"}},
	};
	for (auto &c : cases) {
		server.behave(DiskServer::replies_short(c.replied));
		for (size_t i = 0; i < c.results.size(); i++)
			model::fail("ka_sock_recvmsg", static_cast<int>(i) + 1, c.results[i]);
		ASSERT_EQ(jorl_netlink_send(sock, &message, sizeof(message)), 48);
		wt_netlinkmsg_hdr reply;
		EXPECT_EQ(jorl_netlink_recv(sock, &reply, sizeof(reply)), c.result);
		Lines expected;
		for (auto &line : c.log)
			expected.push_back(warning(line));
		EXPECT_EQ(model::log(), expected);
		disconnect();
		connect();
	}
	// What is not printed is not counted.
	server.behave(DiskServer::replies_short(48));
	const auto set_verbosity = [](unsigned int verbosity) {
		EXPECT_EQ(wt_logging_update("jorl-netlink", verbosity), 0);
	};
	set_verbosity(1);
	model::fail("ka_sock_recvmsg", 1, -11);
	model::before(
		"ka_sock_recvmsg", [&] { set_verbosity(2); }, 2);
	model::fail("ka_sock_recvmsg", 2, -11);
	ASSERT_EQ(jorl_netlink_send(sock, &message, sizeof(message)), 48);
	EXPECT_EQ(jorl_netlink_recv(sock, &message, sizeof(message)), 48);
	EXPECT_THAT(model::log(), ElementsAre(warning(" Unable to recv. retrying 1")));
}

TEST_F(DataLink, Disconnects)
{
	const auto complaint = [&] {
		std::ostringstream line;
		line << "Unable to disconnect the socket " << static_cast<void *>(sock);
		return warn_line(line.str());
	};
	const std::string first = complaint(); // also after a send that succeeded
	disconnect();
	EXPECT_THAT(model::log(), ElementsAre(first));
	wt_netlinkmsg_hdr close;
	memset(&close, 0, sizeof(close));
	close.version = 1;
	close.id = 0xffffffff;
	close.code = WT_NETLINK_CMD_CLOSE;
	EXPECT_EQ(model::bytes_of(messages_after_close().back()), model::bytes_of(close));

	connect();
	model::fail("ka_sock_sendmsg");
	const std::string second = complaint();
	disconnect();
	EXPECT_EQ(model::log().back(), second);
}

} // namespace
