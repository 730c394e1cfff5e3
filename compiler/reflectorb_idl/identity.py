"""Class ids and method codes, made from the repository ids of the IDL."""

# Smaller class ids are those of the library and those that people have chosen by hand.
FIRST_MADE_CLASS_ID = 0x10000
_LAST_BLOCK = 0x7FFE
# What every object answers to.
_STANDARD_CODES = frozenset(range(1000, 1109)) | {2100, 2101}
LARGEST_CODE = 0x7FFFFFFF
# Turns the code of an operation into that under which observers hear of the outcome of its calls.
OUTCOME_MARK = 0x40000000
# Failures of the library itself have the highest codes.
LARGEST_EXCEPTION_CODE = 0xFFFFFEFF


def fnv1a(text):
    value = 0x811C9DC5
    for byte in text.encode("utf-8"):
        value = ((value ^ byte) * 0x01000193) & 0xFFFFFFFF
    return value


def class_id(repo_id):
    return fnv1a(repo_id)


def first_code(repo_id):
    """The codes of a class stand in a block of its own. Derived classes answer to the codes of their
    bases, so the two must not begin with the same number."""
    return (1 + fnv1a(repo_id + "#") % _LAST_BLOCK) << 16


def exception_code(repo_id):
    return FIRST_MADE_CLASS_ID + fnv1a(repo_id) % (LARGEST_EXCEPTION_CODE - FIRST_MADE_CLASS_ID)


def is_standard(code):
    return code in _STANDARD_CODES
