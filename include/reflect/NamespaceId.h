#pragma once

/**
 * Namespace of a broker and of the identifiers it serves. Values other than the named ones may be
 * carried (0 to 255 have a place in the table of brokers) but belong to no transport group.
 */
enum NamespaceId : int {
    NSID_UNDEF = 0,
    /** The brokers of one unit. */
    NSID_UNIT = 1,
    /** The brokers of all units of a node. */
    NSID_NODE = 2
};
