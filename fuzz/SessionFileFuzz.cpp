// A session file through decoding and encoding: what decodes encodes to a file that decodes the same.
#include "fuzz/FuzzTarget.h"

#include "TrackerCore/Session.h"

using namespace skeldrin;

SKELDRIN_FUZZ_TARGET(session_file)
{
    Session session;
    try {
        session = decodeSession(data);
    } catch (const DecodingError&) {
        return;
    }
    const std::string encoded = encodeSession(session);
    SKELDRIN_FUZZ_CHECK(decodeSession(encoded) == session);
    SKELDRIN_FUZZ_CHECK(encodeSession(decodeSession(encoded)) == encoded);
}
