// SPDX-License-Identifier: GPL-2.0
#include "process.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"
#include "pipe.h"

namespace zorvat::agent
{

namespace
{

/* Messages in English, and none about our open files. The first of a name wins. */
std::vector<char *> environment_for_program()
{
	static char language[] = "LC_ALL=C";
	static char descriptors[] = "LVM_SUPPRESS_FD_WARNINGS=1";
	std::vector<char *> variables = {language, descriptors};
	for (char **variable = environ; *variable; variable++)
		if (!std::string_view(*variable).starts_with("LC_ALL="))
			variables.push_back(*variable);
	variables.push_back(nullptr);
	return variables;
}

/*
 * A signal that ends us must not end the program in the middle of its work: it gets a group of its
 * own, and all signals unblocked.
 */
pid_t start(const std::vector<std::string> &command, const Pipe &output, const Pipe &messages)
{
	std::vector<char *> words;
	words.reserve(command.size() + 1);
	for (const std::string &word : command)
		words.push_back(const_cast<char *>(word.c_str()));
	words.push_back(nullptr);

	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
	posix_spawn_file_actions_adddup2(&actions, output.writing.get(), STDOUT_FILENO);
	posix_spawn_file_actions_adddup2(&actions, messages.writing.get(), STDERR_FILENO);
	posix_spawnattr_t attributes;
	posix_spawnattr_init(&attributes);
	sigset_t none;
	sigemptyset(&none);
	posix_spawnattr_setsigmask(&attributes, &none);
	posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);

	pid_t process = -1;
	const int number = posix_spawnp(&process, words[0], &actions, &attributes, words.data(),
					environment_for_program().data());
	posix_spawn_file_actions_destroy(&actions);
	posix_spawnattr_destroy(&attributes);
	if (number != 0)
		throw Failure(FailureCode::failed,
			      "cannot run " + command[0] + ": " +
				      std::generic_category().message(number),
			      number);
	return process;
}

/* Both at once: a full pipe stops the program. */
void read_both(const Pipe &first, std::string &first_text, const Pipe &second,
	       std::string &second_text)
{
	std::array<pollfd, 2> polled = {
		{{first.reading.get(), POLLIN, 0}, {second.reading.get(), POLLIN, 0}}};
	std::array<std::string *, 2> texts = {&first_text, &second_text};
	while (polled[0].fd >= 0 || polled[1].fd >= 0) {
		if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR)
			throw system_failure("cannot wait for a program", errno);
		for (size_t i = 0; i < polled.size(); i++) {
			if (polled[i].fd < 0 || !polled[i].revents)
				continue;
			std::array<char, 4096> buffer;
			const ssize_t count = read(polled[i].fd, buffer.data(), buffer.size());
			if (count > 0)
				texts[i]->append(buffer.data(), count);
			else if (count == 0 || errno != EINTR)
				polled[i].fd = -1;
			polled[i].revents = 0;
		}
	}
}

} // namespace

std::string run_program(const std::vector<std::string> &command)
{
	Pipe output, messages;
	const pid_t process = start(command, output, messages);
	output.writing.reset();
	messages.writing.reset();
	std::string output_text, message_text;
	read_both(output, output_text, messages, message_text);
	int status = 0;
	pid_t ended;
	do
		ended = waitpid(process, &status, 0);
	while (ended < 0 && errno == EINTR);
	if (ended == process && WIFEXITED(status) && WEXITSTATUS(status) == 0)
		return output_text;
	while (!message_text.empty() && message_text.back() == '\n')
		message_text.pop_back();
	throw Failure(FailureCode::failed,
		      fmt::format("'{}' failed: {}", fmt::join(command, " "), message_text));
}

} // namespace zorvat::agent
