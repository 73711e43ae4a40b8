"""The package's own exception."""


class OrvelError(RuntimeError):
    """The library refused a call; the text is the library's."""
