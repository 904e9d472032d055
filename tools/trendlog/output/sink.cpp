#include "output/sink.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "talk.h"
#include "trendlog.h"

namespace trendlog {

void CSink::flush()
{
    size_t done = 0;
    while (done < _text.size()) {
        const ssize_t n = write(STDOUT_FILENO, _text.data() + done, _text.size() - done);
        if (n >= 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (errno == EPIPE) throw closed_t();
        if (errno != EINTR)
            throw failure_t(std::string("standard output: ") + std::strerror(errno));
        throw_if_interrupted();
    }
    _text.clear();
}

}  // namespace trendlog
