"""The package's own exception."""


class OrvelError(RuntimeError):
    """What the library refuses, with its text, or a callsign, with the reason."""
