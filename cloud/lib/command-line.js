// What both commands share: options, help, and how a failure ends the process.

import { parseArgs } from 'node:util';

/** The command line is wrong: exit status 2. Every other failure is exit status 1. */
export class UsageError extends Error {}

/** Parses the options, then runs main(values); its failure becomes one line on stderr and the exit status. */
export async function runCommand({ name, usage, options, main }) {
  try {
    const values = parseOptions(options);
    if (values.help) {
      process.stdout.write(usage);
      return;
    }
    await main(values);
  } catch (error) {
    process.stderr.write(`${name}: ${error.message}\n`);
    // Not process.exitCode: servers that did start must not keep a failed start alive.
    process.exit(error instanceof UsageError ? 2 : 1);
  }
}

function parseOptions(options) {
  try {
    return parseArgs({ options: { ...options, help: { type: 'boolean', short: 'h' } } }).values;
  } catch (error) {
    throw new UsageError(error.message);
  }
}

export function required(values, option) {
  if (!values[option]) {
    throw new UsageError(`--${option} is missing (see --help)`);
  }
  return values[option];
}

export function matching(values, option, pattern, description) {
  if (!pattern.test(values[option])) {
    throw new UsageError(`--${option} must be ${description}, not "${values[option]}"`);
  }
  return values[option];
}

export function wholeNumber(values, option, smallest, largest) {
  const number = Number(matching(values, option, /^\d+$/, 'a whole number'));
  if (number < smallest || number > largest) {
    throw new UsageError(`--${option} must be from ${smallest} to ${largest}, not ${number}`);
  }
  return number;
}
