"""What the owners of C objects share."""

from __future__ import annotations

from types import TracebackType
from typing import ClassVar, Self


class Closable:
    """What is closed by close() or at the end of a with block."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


class Handle(Closable):
    """Owner of a C object until it is closed."""

    _name: ClassVar[str]  # for messages
    _handle: int | None

    def _open_handle(self) -> int:
        if self._handle is None:
            raise ValueError(f"the {self._name} is closed")
        return self._handle
