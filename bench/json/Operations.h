#pragma once

/// Registers what is done with documents and strings once they are read, here and by the rivals.
void addOperations();
