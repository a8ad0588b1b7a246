// What became of a key after a revision: how an unknown outcome is settled.
#pragma once

#include "client.h"

namespace etcd {

enum class History {
    found,      // the change is in the record
    unchanged,  // there has been none yet
    lost,       // the store doesn't keep it any more, or the key was removed in between
    failed,     // error says by what
};

// The first change of a key after it was as seen (mod_revision and version 0: it was not there). now is what it is.
History first_change(Client &client, const KeyValue &seen, const KeyValue &now, const Allowed &allowed,
                     KeyValue &change, int &error);

// The one key that a range of a key alone may find. False: it found something else. Absent: all is 0.
bool take_single(const RangeResponse &response, const std::string &key, KeyValue &found);

}  // namespace etcd
