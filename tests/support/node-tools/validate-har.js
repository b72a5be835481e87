// Validates a HAR file against the HAR 1.2 JSON schema (har-schema) with ajv. Prints "valid" and
// exits 0, or prints each error and exits 1. Usage: node validate-har.js FILE
'use strict';
const fs = require('fs');
const Ajv = require('ajv');
const addFormats = require('ajv-formats');
const draft06 = require('ajv/dist/refs/json-schema-draft-06.json');
const schemas = require('har-schema');

const ajv = new Ajv({ allErrors: true, strict: false });
ajv.addMetaSchema(draft06);
addFormats(ajv);
for (const name of Object.keys(schemas)) ajv.addSchema(schemas[name]);
const validate = ajv.getSchema('har.json#');
const har = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
if (validate(har)) {
  console.log('valid');
  process.exit(0);
}
for (const error of validate.errors) console.log(`${error.instancePath} ${error.message}`);
process.exit(1);
