"""What the parts of the generator know of the others."""


class Part:
    def __init__(self, generator):
        self._all = generator.all
        self._scopes = generator.scopes
        self._types = generator.types
