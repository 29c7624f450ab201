#pragma once

// Level of a database service message.
enum class PostgresLogLevel : int { Info = 1, Error = 2, Debug = 3 };
