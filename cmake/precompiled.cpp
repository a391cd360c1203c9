// SPDX-License-Identifier: Apache-2.0
// Nothing: a target has to have a source, see korva_precompile().
